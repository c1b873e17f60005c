// String lists.

#ifndef TARN_PLATFORM_STRLIST_H
#define TARN_PLATFORM_STRLIST_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TLIBCSZLIST {
  int capacity;
  int count; /* number of strings */
  char** items;
} TLIBCSZLIST;

// An empty list with room for `capacity` strings, or null with the platform error set.
TLIBCSZLIST* TLIBCSzListAlloc(int capacity);

// Appends a copy of `text`; the list may move. Negative on error, the list is then as it was.
int TLIBCSzListPush(TLIBCSZLIST** list, const char* text);

// The string at `index`, owned by the list, or null when there is none.
const char* TLIBCSzListGet(const TLIBCSZLIST* list, int index);

// Releases the list and its strings; null is accepted.
void TLIBCSzListFree(TLIBCSZLIST* list);

#ifdef __cplusplus
}
#endif

#endif

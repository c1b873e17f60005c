#include "strlist.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "error.h"
#include "errorCodes.h"

using tarnplatform::kErrorArgument;
using tarnplatform::kErrorMemory;

namespace {

constexpr int kLargestCapacity = 1 << 24;

bool grow(TLIBCSZLIST* list) {
  if (list->capacity >= kLargestCapacity) {
    return false;
  }
  const int capacity = std::min(kLargestCapacity, std::max(16, list->capacity * 2));
  void* items = realloc(list->items, static_cast<size_t>(capacity) * sizeof(char*));
  if (items == nullptr) {
    return false;
  }
  list->items = static_cast<char**>(items);
  list->capacity = capacity;
  return true;
}

}  // namespace

TLIBCSZLIST* TLIBCSzListAlloc(int capacity) {
  if (capacity < 0 || capacity > kLargestCapacity) {
    TLIBCErrSetEx(kErrorArgument, __FILE__, __LINE__);
    return nullptr;
  }
  auto* list = static_cast<TLIBCSZLIST*>(calloc(1, sizeof(TLIBCSZLIST)));
  if (list == nullptr) {
    TLIBCErrSetEx(kErrorMemory, __FILE__, __LINE__);
    return nullptr;
  }
  if (capacity > 0) {
    list->items = static_cast<char**>(calloc(static_cast<size_t>(capacity), sizeof(char*)));
    if (list->items == nullptr) {
      TLIBCErrSetEx(kErrorMemory, __FILE__, __LINE__);
      free(list);
      return nullptr;
    }
  }
  list->capacity = capacity;
  return list;
}

int TLIBCSzListPush(TLIBCSZLIST** list, const char* text) {
  if (list == nullptr || *list == nullptr || text == nullptr) {
    TLIBCErrSetEx(kErrorArgument, __FILE__, __LINE__);
    return -1;
  }
  if ((*list)->count == (*list)->capacity && !grow(*list)) {
    TLIBCErrSetEx(kErrorMemory, __FILE__, __LINE__);
    return -1;
  }
  char* copy = strdup(text);
  if (copy == nullptr) {
    TLIBCErrSetEx(kErrorMemory, __FILE__, __LINE__);
    return -1;
  }
  (*list)->items[(*list)->count++] = copy;
  return 0;
}

const char* TLIBCSzListGet(const TLIBCSZLIST* list, int index) {
  if (list == nullptr || index < 0 || index >= list->count) {
    return nullptr;
  }
  return list->items[index];
}

void TLIBCSzListFree(TLIBCSZLIST* list) {
  if (list == nullptr) {
    return;
  }
  for (int i = 0; i < list->count; ++i) {
    free(list->items[i]);
  }
  free(list->items);
  free(list);
}

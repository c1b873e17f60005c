// The database of services and their ports.

#ifndef TARN_PLATFORM_SERVICES_H
#define TARN_PLATFORM_SERVICES_H

#include "strlist.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TARNFW_SERVICE_LIST TARNFW_SERVICE_LIST;

// Protocol numbers: 1 tcp, 2 udp, 3 both, 4 icmp, 32 igmp, 0 none. Port strings are "22" or
// "6881-6889".
typedef struct TARNFW_SERVICE {
  const char* name;
  int available; /* zero: the service is dropped from rules and gives no ports */
  int protocol;  /* the destination's, else the source's */
  int srcProtocol;
  TLIBCSZLIST* srcPorts; /* null or a list */
  int dstProtocol;
  TLIBCSZLIST* dstPorts; /* null or a list */
} TARNFW_SERVICE;

// Loads the database into *list, which the caller releases. Answers the number of services; 0 or
// less when it cannot be read, *list is then untouched.
int TARNFwServiceEnum(TARNFW_SERVICE_LIST** list);

// The record of `name`, owned by the list, or null.
const TARNFW_SERVICE* TARNFWServiceFind(const TARNFW_SERVICE_LIST* list, const char* name);

// Releases the database; null is accepted.
void TARNFwServiceFree(TARNFW_SERVICE_LIST* list);

#ifdef __cplusplus
}
#endif

#endif

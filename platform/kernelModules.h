// Netfilter kernel modules.

#ifndef TARN_PLATFORM_KERNELMODULES_H
#define TARN_PLATFORM_KERNELMODULES_H

#include "strlist.h"

#ifdef __cplusplus
extern "C" {
#endif

// Load or remove the modules of the list ("xt_mac.ko"), in its order, on behalf of the service
// `servName`. A module is removed from the kernel only when no other service uses it. Negative on
// error.
int TLIBIptablesModInsert(const char* servName, const TLIBCSZLIST* modules);
int TLIBIptablesModRemove(const char* servName, const TLIBCSZLIST* modules);

#ifdef __cplusplus
}
#endif

#endif

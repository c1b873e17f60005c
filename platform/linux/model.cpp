#include "model.h"

#include "files.h"

int TLIBCSupportGet(const char* key) {
  return TLIBCFileCheckKeyValue("/etc.defaults/tarninfo.conf", key, "yes", /*flags=*/0);
}

#include "error.h"

namespace {

struct LastError {
  int code;
  const char* file;
  int line;
};

// Part of the static thread block: access never allocates, also when the library was loaded at run
// time.
__attribute__((tls_model("initial-exec"))) thread_local LastError lastError = {0, "", 0};

}  // namespace

void TLIBCErrSetEx(int code, const char* file, int line) {
  lastError = {code, file == nullptr ? "" : file, line};
}

int TLIBCErrGet(void) { return lastError.code; }

const char* TLIBCErrorGetFile(void) { return lastError.file; }

int TLIBCErrorGetLine(void) { return lastError.line; }

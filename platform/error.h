// The last platform error of the calling thread: a code and the place where it was raised.

#ifndef TARN_PLATFORM_ERROR_H
#define TARN_PLATFORM_ERROR_H

#ifdef __cplusplus
extern "C" {
#endif

// `file` is kept by reference: pass a literal or __FILE__.
void TLIBCErrSetEx(int code, const char* file, int line);
int TLIBCErrGet(void);
const char* TLIBCErrorGetFile(void);  // never null
int TLIBCErrorGetLine(void);

#ifdef __cplusplus
}
#endif

#endif

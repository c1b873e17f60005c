// What the device model can do.

#ifndef TARN_PLATFORM_MODEL_H
#define TARN_PLATFORM_MODEL_H

#ifdef __cplusplus
extern "C" {
#endif

// Non-zero when the model has the capability `key` ("support_wireless").
int TLIBCSupportGet(const char* key);

#ifdef __cplusplus
}
#endif

#endif

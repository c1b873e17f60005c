// Plug-in hooks.

#ifndef TARN_PLATFORM_PLUGINS_H
#define TARN_PLATFORM_PLUGINS_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TLIBPLUGIN TLIBPLUGIN;

// Prepares the hook `name` ("net/firewall_enable") of `category` ("net"). Negative on error;
// *plugin is then null or must still be released.
int TLIBPluginSDKInit(const char* category, const char* name, TLIBPLUGIN** plugin);

// Sets an argument that the plug-ins receive. Negative on error.
int TLIBPluginSetArg(TLIBPLUGIN* plugin, const char* key, const char* value);

// Runs the plug-ins of the hook; action 4: before the change, 5: after it. Negative when one
// failed.
int TLIBPluginAction(int action, TLIBPLUGIN* plugin);

// Releases the handle; null is accepted.
void TLIBPluginExit(TLIBPLUGIN* plugin);

#ifdef __cplusplus
}
#endif

#endif

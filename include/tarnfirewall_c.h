/* C entry points of the firewall library.
 *
 * 1. Every function may be called from C and from C++; strings are NUL-terminated and stay the
 * caller's.
 * 2. An int result is 0 for success and -1 for failure unless the function says otherwise.
 * 3. No C++ exception leaves a function: it is logged and becomes the failure value.
 * 4. Failures are written to the system log at error priority.
 * 5. Callers run as root; nothing here checks it.
 */

#ifndef TARNFIREWALL_C_H
#define TARNFIREWALL_C_H

#ifdef __cplusplus
extern "C" {
#endif

/* Load and unload netfilter module sets on behalf of the service servName. The core set is read
 * from the keys KERNEL_MODULES_CORE, KERNEL_MODULES_COMMON and IPV6_MODULES of
 * /usr/tarn/etc.defaults/iptables_modules_list, the NAT set (loaded after the core set, unloaded
 * before it) from KERNEL_MODULES_NAT. A null servName is logged and gives -1; an empty one is a
 * name. */
int TARNIptablesCodeModeLoad(const char* servName);
int TARNIptablesCoreModUnload(const char* servName);
int TARNIptablesNATModLoad(const char* servName);
int TARNIptablesNATModUnload(const char* servName);

/* Takes services that no longer exist out of every profile, then reloads. The reload is left out
 * when the first step fails. */
int TARNFwRuleHup(void);

/* Switches the firewall off. */
void TARNFwReset(void);

/* Takes the service out of every profile; does not reload. service must not be null. */
int TLIBFwServRemoveRec(const char* service);

/* Gives an adapter a new name in every profile; rules that the new name had are lost. With reload 1
 * the firewall is reloaded when the active profile had a policy for the adapter. The names must
 * differ and must not be null. */
int TLIBFwChangeAdatper(const char* oldAdapter, const char* newAdapter, int reload);

/* Is the service open on the adapter (null: on every adapter) under the active profile? 1: open, 0:
 * blocked or partly blocked somewhere, -1: failure. A null serv also sets the platform error
 * 0x0D00. */
int TARNFwPortsCheckAllowByAdapter(const char* adapter, const char* serv);

/* Reserves services, separated by commas, for all adapters ("global"): allowed when allow is not 0,
 * denied when it is 0. With reload 1 the firewall is reloaded afterwards. A null or empty list sets
 * the platform error 0x0D00 and logs nothing. */
int TLIBFwRuleReserveServInsert(const char* services, int allow, int reload);

#ifdef __cplusplus
}
#endif

#endif

/* The header is all that a C program needs, and is valid C11. */
#include "tarnfirewall_c.h"

/* Twice is once. */
#include "tarnfirewall_c.h"

/* The types of the entry points, as a C program sees them. */
extern const struct c_interface {
  int (*load_core)(const char*);
  int (*unload_core)(const char*);
  int (*load_nat)(const char*);
  int (*unload_nat)(const char*);
  int (*rule_hup)(void);
  void (*reset)(void);
  int (*remove_service)(const char*);
  int (*change_adapter)(const char*, const char*, int);
  int (*check)(const char*, const char*);
  int (*reserve)(const char*, int, int);
} c_interface_in_c;

const struct c_interface c_interface_in_c = {TARNIptablesCodeModeLoad,
                                             TARNIptablesCoreModUnload,
                                             TARNIptablesNATModLoad,
                                             TARNIptablesNATModUnload,
                                             TARNFwRuleHup,
                                             TARNFwReset,
                                             TLIBFwServRemoveRec,
                                             TLIBFwChangeAdatper,
                                             TARNFwPortsCheckAllowByAdapter,
                                             TLIBFwRuleReserveServInsert};

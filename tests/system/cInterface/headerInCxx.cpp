// The same header in C++17: the same functions, by the same names.
#include "tarnfirewall_c.h"

extern "C" {

struct CInterface {
  int (*loadCore)(const char*);
  int (*unloadCore)(const char*);
  int (*loadNat)(const char*);
  int (*unloadNat)(const char*);
  int (*ruleHup)();
  void (*reset)();
  int (*removeService)(const char*);
  int (*changeAdapter)(const char*, const char*, int);
  int (*check)(const char*, const char*);
  int (*reserve)(const char*, int, int);
};

extern const CInterface c_interface_in_cxx;
const CInterface c_interface_in_cxx = {TARNIptablesCodeModeLoad,
                                       TARNIptablesCoreModUnload,
                                       TARNIptablesNATModLoad,
                                       TARNIptablesNATModUnload,
                                       TARNFwRuleHup,
                                       TARNFwReset,
                                       TLIBFwServRemoveRec,
                                       TLIBFwChangeAdatper,
                                       TARNFwPortsCheckAllowByAdapter,
                                       TLIBFwRuleReserveServInsert};
}

/* A caller in C: CALL and HUP are the names that this copy of it gets. */

#include "callers.h"
#include "tarnfirewall_c.h"

int CALL(int (*operation)(void)) { return operation(); }

int HUP(void) { return TARNFwRuleHup(); }

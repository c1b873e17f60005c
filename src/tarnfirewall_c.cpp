#include "tarnfirewall_c.h"

#include <string>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "cEntry.h"
#include "error.h"
#include "log.h"
#include "tarnfirewall.h"

namespace {

constexpr FW::LogSite here(int line = __builtin_LINE()) { return {"tarnfirewall_c", line}; }

constexpr int kDone = 0;
constexpr int kFailed = -1;
constexpr int kOpen = 1;  // the port check's answers
constexpr int kBlocked = 0;
constexpr int kReload = 1;  // value of a reload flag; any other number does not reload

constexpr int kBadParameter = 0x0D00;  // the platform's error code

}  // namespace

int TARNFwRuleHup() {
  return guarded(here(), __func__, kFailed, [] {
    return FW::TARNFW().fwUpdate() && FW::TARNFW().fwReload(/*withState=*/true) ? kDone : kFailed;
  });
}

void TARNFwReset() {
  (void)guarded(here(), __func__, kFailed, [] { return FW::TARNFW().fwReset() ? kDone : kFailed; });
}

int TLIBFwServRemoveRec(const char* service) {
  return guarded(here(), __func__, kFailed, [service] {
    return FW::TARNFW_PROFILE().profileRemoveServ(service) ? kDone : kFailed;
  });
}

int TLIBFwChangeAdatper(const char* oldAdapter, const char* newAdapter, int reload) {
  return guarded(here(), __func__, kFailed, [=] {
    return FW::TARNFW_PROFILE().profileChangeAdapter(oldAdapter, newAdapter, reload == kReload)
               ? kDone
               : kFailed;
  });
}

int TARNFwPortsCheckAllowByAdapter(const char* adapter, const char* serv) {
  if (serv == nullptr) {
    TLIBCErrSetEx(kBadParameter, __FILE__, __LINE__);
    here().error("Bad parameters[0x%04X %s:%d]", static_cast<unsigned>(TLIBCErrGet()),
                 TLIBCErrorGetFile(), TLIBCErrorGetLine());
    return kFailed;
  }
  return guarded(here(), __func__, kFailed, [=] {
    FW::AdapterPolicyMap verdicts;
    if (!FW::TARNFW().fwServIsBlocked(serv, adapter == nullptr ? "" : adapter, verdicts)) {
      here().error("Failed to check %s is block or not", serv);
      return kFailed;
    }
    for (const auto& [name, verdict] : verdicts) {
      if (verdict != FW::FW_POLICY_ALLOW && verdict != FW::FW_POLICY_NONE) return kBlocked;
    }
    return kOpen;
  });
}

int TLIBFwRuleReserveServInsert(const char* services, int allow, int reload) {
  if (services == nullptr || *services == '\0') {
    TLIBCErrSetEx(kBadParameter, __FILE__, __LINE__);
    return kFailed;
  }
  return guarded(here(), __func__, kFailed, [=] {
    // Kept: adjacent commas give an empty name, which is passed on.
    std::vector<std::string> names;
    boost::algorithm::split(names, std::string(services), boost::algorithm::is_any_of(","),
                            boost::algorithm::token_compress_off);
    const FW::FW_POLICY policy = allow != 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
    FW::TARNFW_PROFILE manager;
    for (const std::string& name : names) {
      if (!manager.profileAddServToReserve("global", name, policy, /*reload=*/false)) {
        here().error("Failed to assign serv [%s]", name.c_str());
        return kFailed;
      }
    }
    if (reload == kReload && !FW::TARNFW().fwReload(/*withState=*/true)) {
      here().error("Failed to reload firewall");
      return kFailed;
    }
    return kDone;
  });
}

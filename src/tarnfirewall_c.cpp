#include "tarnfirewall_c.h"

#include <cxxabi.h>

#include <exception>
#include <string>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

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

// Calls `operation`; a C caller cannot receive an exception, so it is logged and becomes the
// failure value. The cancellation of a thread unwinds as an exception too, and must go on.
template <class Operation>
int guarded(const char* entryPoint, int failed, Operation operation) {
  try {
    return operation();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& reason) {
    here().error("Failed to %s: %s", entryPoint, reason.what());
  } catch (...) {
    here().error("Failed to %s: %s", entryPoint, "unknown exception");
  }
  return failed;
}

int changeModules(const char* entryPoint, const char* servName,
                  bool (*operation)(const std::string& servName)) {
  if (servName == nullptr) {
    here().error("servName is NULL");
    return kFailed;
  }
  return guarded(entryPoint, kFailed, [&] { return operation(servName) ? kDone : kFailed; });
}

}  // namespace

int TARNIptablesCodeModeLoad(const char* servName) {
  return changeModules(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesCoreModLoad);
}

int TARNIptablesCoreModUnload(const char* servName) {
  return changeModules(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesCoreModUnload);
}

int TARNIptablesNATModLoad(const char* servName) {
  return changeModules(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesNATModLoad);
}

int TARNIptablesNATModUnload(const char* servName) {
  return changeModules(__func__, servName, FW::TARN_IPTABLES_MODULES::iptablesNATModUnload);
}

int TARNFwRuleHup() {
  return guarded(__func__, kFailed, [] {
    return FW::TARNFW().fwUpdate() && FW::TARNFW().fwReload(/*withState=*/true) ? kDone : kFailed;
  });
}

void TARNFwReset() {
  (void)guarded(__func__, kFailed, [] { return FW::TARNFW().fwReset() ? kDone : kFailed; });
}

int TLIBFwServRemoveRec(const char* service) {
  return guarded(__func__, kFailed, [service] {
    return FW::TARNFW_PROFILE().profileRemoveServ(service) ? kDone : kFailed;
  });
}

int TLIBFwChangeAdatper(const char* oldAdapter, const char* newAdapter, int reload) {
  return guarded(__func__, kFailed, [=] {
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
  return guarded(__func__, kFailed, [=] {
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
  return guarded(__func__, kFailed, [=] {
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

#include "readiness.h"

#include <netdb.h>
#include <unistd.h>

#include <fstream>

#include "liveRules.h"
#include "packetFilter.h"
#include "services.h"
#include "settings.h"
#include "tarnfirewall.h"

namespace ops {
namespace {

// The two implementations of the tools. Each has tables of its own in the kernel, and a packet
// passes both.
enum class Variant { kNft, kLegacy, kUnknown };

// One family's tools and the kernel's list of its legacy tables.
struct Tools {
  Family family;
  const char* nft;
  const char* legacy;
  const char* legacyTables;
};

constexpr std::array<Tools, 2> kTools = {
    Tools{Family::kV4, "/usr/sbin/iptables-nft", "/usr/sbin/iptables-legacy",
          "/proc/net/ip_tables_names"},
    Tools{Family::kV6, "/usr/sbin/ip6tables-nft", "/usr/sbin/ip6tables-legacy",
          "/proc/net/ip6_tables_names"}};

bool executable(const char* path) { return access(path, X_OK) == 0; }

Variant variantOf(Family family) {
  const ToolRun version = run({family, {"-V"}});
  if (version.output.find("nf_tables") != std::string::npos) return Variant::kNft;
  if (version.output.find("legacy") != std::string::npos) return Variant::kLegacy;
  return Variant::kUnknown;
}

// Has the kernel legacy tables? Asking the legacy tool would make them.
bool hasLegacyTables(const Tools& tools) {
  std::ifstream names(tools.legacyTables);
  return names.peek() != std::ifstream::traits_type::eof();
}

bool holdsRules(const char* tool) {
  const ToolRun listing = runProgram(tool, {"-S"});
  const LiveRules rules = parseRules(listing.output);
  for (const auto& [chain, lines] : rules.chains) {
    if (!lines.empty()) return true;
  }
  for (const auto& [chain, policy] : rules.policies) {
    if (policy != "ACCEPT") return true;
  }
  return false;
}

void lookAtOtherVariant(const Tools& tools, Variant variant, std::vector<std::string>& problems) {
  const bool nft = variant == Variant::kNft;
  const char* other = nft ? tools.legacy : tools.nft;
  if (variant == Variant::kUnknown || !executable(other)) return;
  if (nft && !hasLegacyTables(tools)) return;
  if (!holdsRules(other)) return;
  problems.push_back(std::string(other) + " holds rules besides those of " + toolOf(tools.family) +
                     "; a packet must pass both");
}

void lookAtTools(std::vector<std::string>& problems) {
  Variant first = Variant::kUnknown;
  for (const Tools& tools : kTools) {
    if (!executable(toolOf(tools.family))) {
      problems.push_back(std::string(toolOf(tools.family)) + " is not installed");
      continue;
    }
    const Variant variant = variantOf(tools.family);
    lookAtOtherVariant(tools, variant, problems);
    if (tools.family == Family::kV4) {
      first = variant;
    } else if (variant != first) {
      problems.emplace_back(
          "/sbin/iptables and /sbin/ip6tables are different variants, nft and legacy");
    }
  }
}

void lookAtData(std::vector<std::string>& problems) {
  std::vector<std::string> modules;
  if (!FW::TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules)) {
    problems.emplace_back(
        "the list of kernel modules cannot be read, so the firewall cannot be enabled");
  }
  TARNFW_SERVICE_LIST* services = nullptr;
  if (TARNFwServiceEnum(&services) <= 0) {
    problems.emplace_back(
        "the service table cannot be read, so profiles with service rules do not compile");
  } else {
    TARNFwServiceFree(services);
  }
  if (getprotobyname("igmp") == nullptr) {
    problems.emplace_back("/etc/protocols does not name igmp; its rules will be refused");
  }
}

}  // namespace

std::vector<std::string> readinessProblems() {
  std::vector<std::string> problems;
  lookAtTools(problems);
  lookAtData(problems);
  return problems;
}

std::string activeProfileProblem() {
  Settings settings;
  std::string reason;
  if (!readSettings(settings, reason)) return reason;
  if (FW::TARNFW_PROFILE().profileExist(settings.profile)) return "";
  return "the active profile '" + settings.profile + "' is not stored";
}

}  // namespace ops

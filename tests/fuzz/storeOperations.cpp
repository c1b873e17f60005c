#include "storeOperations.h"

#include <array>
#include <vector>

#include "check.h"
#include "profileInput.h"
#include "services.h"
#include "tarnfirewall.h"

namespace fuzz {
namespace {

using FW::FWPROFILE;

constexpr std::array<const char*, 5> kNames = {kSeed, "a", "b", ".test_seed", ".test_a"};
const std::string kTest = ".test_";

std::string nameOf(Input& input) { return kNames.at(input.below(kNames.size())); }

FWPROFILE named(FWPROFILE profile, const std::string& name) {
  profile.name = name;
  return profile;
}

// --- the operations ---

bool removeFrom(Store& store, const std::string& name) {
  store.ask();
  if (store.settings->second == name) return false;
  store.profiles.erase(name);
  return true;
}

template <class Edit>
bool editAll(Store& store, Edit edit) {
  for (auto& [name, profile] : store.profiles) profile = edit(profile);
  return true;
}

Operation create(const std::string& name) {
  return {"create " + name,
          [=](Store& store) {
            if (store.profiles.count(name) != 0) return false;
            store.profiles[name] = asStored(named({}, name));
            return true;
          },
          [=] { return FW::TARNFW_PROFILE().profileCreate(name); }};
}

Operation set(const std::string& name, const FWPROFILE& profile) {
  return {"set " + name,
          [=](Store& store) {
            store.profiles[name] = asStored(named(profile, name));
            return true;
          },
          [=] { return FW::TARNFW_PROFILE().profileSet(name, named(profile, name)); }};
}

Operation remove(const std::string& name, bool test) {
  const std::string whole = test ? kTest + name : name;
  return {"remove " + whole, [=](Store& store) { return removeFrom(store, whole); },
          [=] {
            FW::TARNFW_PROFILE manager;
            return test ? manager.RemoveTestProfile(name) : manager.profileDelete(name);
          }};
}

Operation rename(const std::string& from, const std::string& to) {
  return {"rename " + from + " " + to,
          [=](Store& store) {
            if (store.profiles.count(to) != 0) return false;
            store.ask();
            if (store.profiles.count(from) == 0) return false;
            store.profiles[to] = named(store.profiles[from], to);
            store.profiles.erase(from);
            if (store.settings->second == from) store.settings->second = to;
            return true;
          },
          [=] { return FW::TARNFW_PROFILE().profileRename(from, to); }};
}

Operation makeTest(const std::string& name, const FWPROFILE& profile) {
  const std::string test = kTest + name;
  Operation operation = {
      "makeTest " + name,
      [=](Store& store) {
        if (store.profiles.count(test) != 0 && !removeFrom(store, test)) return false;
        store.profiles[test] = asStored(named(profile, test));
        return true;
      },
      [=] { return FW::TARNFW_PROFILE().CreateTestProfile(name, named(profile, name)); }};
  operation.remade = test;
  return operation;
}

Operation adopt(const std::string& name) {
  return {"adopt " + name,
          [=](Store& store) {
            const auto test = store.profiles.find(kTest + name);
            if (test == store.profiles.end()) return false;
            store.profiles[name] = asStored(named(test->second, name));
            return true;
          },
          [=] { return FW::TARNFW_PROFILE().AdoptTestProfile(name); }};
}

Operation reserve(const std::string& adapter, const std::string& service, FW::FW_POLICY policy) {
  return {"reserve",
          [=](Store& store) {
            return editAll(store, [&](const FWPROFILE& profile) {
              return reserved(profile, adapter, service, policy);
            });
          },
          [=] {
            return FW::TARNFW_PROFILE().profileAddServToReserve(adapter, service, policy, false);
          }};
}

Operation removeService(const std::string& service) {
  return {"removeService",
          [=](Store& store) {
            return editAll(
                store, [&](const FWPROFILE& profile) { return withoutService(profile, service); });
          },
          [=] { return FW::TARNFW_PROFILE().profileRemoveServ(service); }};
}

Operation changeAdapter(const std::string& from, const std::string& to) {
  return {"changeAdapter",
          [=](Store& store) {
            store.ask();
            return editAll(
                store, [&](const FWPROFILE& profile) { return renamedAdapter(profile, from, to); });
          },
          [=] { return FW::TARNFW_PROFILE().profileChangeAdapter(from, to, false); }};
}

Operation update() {
  return {"update",
          [](Store& store) {
            return editAll(store,
                           [](const FWPROFILE& profile) { return updated(profile, services()); });
          },
          [] { return FW::TARNFW().fwUpdate(); }};
}

Operation setStatus(bool enabled) {
  Operation operation = {"setStatus",
                         [=](Store& store) {
                           store.ask();
                           store.settings->first = enabled;
                           return true;
                         },
                         [=] {
                           Json::Value members;
                           members["status"] = enabled;
                           return FW::TARNFW().configSet(members);
                         }};
  operation.writesSettings = true;
  return operation;
}

Operation use(const std::string& name) {
  Operation operation = {"use " + name,
                         [=](Store& store) {
                           if (store.profiles.count(name) == 0) return false;
                           store.ask();
                           store.settings->second = name;
                           return true;
                         },
                         [=] { return FW::TARNFW().fwProfileConfigSet(name, false); }};
  operation.writesSettings = true;
  return operation;
}

// Reads everything that can be asked for.
Operation readAll(const std::string& name) {
  return {"readAll " + name,
          [=](Store& store) {
            store.ask();
            return store.profiles.count(name) != 0;
          },
          [=] {
            bool enabled = false;
            FWPROFILE profile;
            std::vector<std::string> names;
            FW::TARNFW_PROFILE manager;
            const bool done = FW::TARNFW().fwStatus(enabled) && manager.profileEnum(names) &&
                              manager.profileGet(name, profile);
            require(done == manager.profileExist(name), "what exists can be read");
            require(!done || profile.name == name, "a profile is read under its name");
            return done;
          }};
}

}  // namespace

Operation operationOf(Input& input) {
  const std::size_t kind = input.below(13);
  const std::string name = nameOf(input);
  switch (kind) {
    case 0:
      return create(name);
    case 1:
      return set(name, profileOf(input));
    case 2:
      return remove(name, input.flag());
    case 3:
      return rename(name, nameOf(input));
    case 4:
      return makeTest(name, profileOf(input));
    case 5:
      return adopt(name);
    case 6: {
      const std::string adapter = input.plainText();
      const std::string service = input.plainText();
      return reserve(adapter, service, static_cast<FW::FW_POLICY>(input.below(2)));
    }
    case 7:
      return removeService(input.plainText());
    case 8: {
      const std::string from = input.plainText();
      return changeAdapter(from, input.plainText());
    }
    case 9:
      return update();
    case 10:
      return setStatus(input.flag());
    case 11:
      return use(name);
    default:
      return readAll(name);
  }
}

FWPROFILE emptyProfile(const std::string& name) { return asStored(named({}, name)); }

}  // namespace fuzz

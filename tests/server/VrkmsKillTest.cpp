// The service killed (SIGKILL) at random moments while a stream of changes runs; each restart must
// hold every acknowledged change and the one in flight whole or not at all; some kills cut recovery
// short. VRKMS_KILLS kills (10; 200 in `make test-long`); VRKMS_KILL_SEED replays.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <tuple>

#include <KMS.h>

#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ServiceClient::errorCode;

namespace {

constexpr long kActive = 1, kInactive = 2, kDeprecated = 3, kPrelive = 4, kTerminated = 5;
constexpr size_t kMaxGroups = 6, kMaxKeysPerGroup = 8;

// What a client knows of a group or a key; a lost reply leaves the tag ("")
// and times (-1) unknown, matching anything.
struct Facts {
  std::string tag;
  long kind = 0;  // a key's state, a group's cipher type
  std::string description;
  long rev = 0;
  long long createTime = -1, updateTime = -1;
  std::map<std::string, Facts> keys;  // a group's keys by name
};
using Store = std::map<std::string, Facts>;  // groups by name

// Whether `got`, read from the service, is `want`; `why` names the first difference.
bool matches(const Store& want, const Store& got, const std::string& where, std::string* why) {
  if (want.size() != got.size())
    return *why = where + " holds " + std::to_string(got.size()), false;
  for (const auto& [name, w] : want) {
    const auto found = got.find(name);
    if (found == got.end())
      return *why = where + name + " is missing", false;
    const Facts& g = found->second;
    const auto time = [](long long w, long long g) { return w < 0 || w == g; };
    if (!(w.tag.empty() || w.tag == g.tag) || w.kind != g.kind || w.description != g.description ||
        w.rev != g.rev || !time(w.createTime, g.createTime) || !time(w.updateTime, g.updateTime))
      return *why = where + name + " differs, rev " + std::to_string(g.rev), false;
    if (!matches(w.keys, g.keys, where + name + "/", why))
      return false;
  }
  return true;
}

// One change as sent. UpdateKey: key `key` of `group` becomes `newName` in
// `newGroup` with `value` as state; UpdateGroup: `group` becomes `newName`.
struct Change {
  enum Kind { AddGroup, UpdateGroup, DeleteGroup, AddKey, UpdateKey, DeleteKey } kind = AddGroup;
  std::string group, key, newGroup, newName, description;
  long value = 0;  // a key's state, a new group's cipher type
  bool force = false;

  std::string text() const {
    return std::to_string(kind) + " " + group + "/" + key + " -> " + newGroup + "/" + newName;
  }
};

// The service demotes a group's active key when another becomes active.
void demoteActive(Facts& group, long long now) {
  for (auto& [name, key] : group.keys) {
    if (key.kind == kActive) {
      key.kind = kInactive;
      key.rev += 1;
      key.updateTime = now;
    }
  }
}

// `store` with `change` applied as the service applies it.
// `reply`: the tag and times the service gave; unknown when the reply was lost.
Store applied(Store store, const Change& c, const Facts& reply) {
  const Facts made{reply.tag, c.value, c.description, 1, reply.createTime, reply.updateTime, {}};
  switch (c.kind) {
    case Change::AddGroup:
      store[c.group] = made;
      break;
    case Change::UpdateGroup: {
      Facts group = store.at(c.group);
      store.erase(c.group);
      group.description = c.description;
      group.rev += 1;
      group.updateTime = reply.updateTime;
      store[c.newName] = group;
      break;
    }
    case Change::DeleteGroup:
      store.erase(c.group);
      break;
    case Change::AddKey: {
      Facts& group = store.at(c.group);
      if (c.value == kActive)
        demoteActive(group, reply.updateTime);
      group.keys[c.key] = made;
      break;
    }
    case Change::UpdateKey: {
      Facts key = store.at(c.group).keys.at(c.key);
      store.at(c.group).keys.erase(c.key);
      Facts& to = store.at(c.newGroup);
      if ((c.newGroup != c.group || c.value != key.kind) && c.value == kActive)
        demoteActive(to, reply.updateTime);
      key.kind = c.value;
      key.description = c.description;
      key.rev += 1;
      key.updateTime = reply.updateTime;
      to.keys[c.newName] = key;
      break;
    }
    case Change::DeleteKey:
      store.at(c.group).keys.erase(c.key);
      break;
  }
  return store;
}

Store readStore(Facets::KMSQueryableFacet_ptr query) {
  Store store;
  Facets::KeyGroupRecordSeq_var groups = query->getAllKeyGroupRecords();
  for (CORBA::ULong i = 0; i < groups->length(); ++i) {
    const Facets::KeyGroupRecord& g = groups[i];
    Facts& group = store[g.name.in()] =
        Facts{g.tag.in(), g.type, g.description.in(), g.rev, g.createTime, g.updateTime, {}};
    Facets::KeyRecordSeq_var keys = query->getAllKeyRecordsInGroup(g.tag.in());
    for (CORBA::ULong k = 0; k < keys->length(); ++k) {
      const Facets::KeyRecord& r = keys[k];
      group.keys[r.name.in()] =
          Facts{r.tag.in(), r.state, r.description.in(), r.rev, r.createTime, r.updateTime, {}};
    }
  }
  return store;
}

// Kills a process (SIGKILL) after a seeded random delay within a window, from
// a thread; the owner must not reap the process before the kill was reported.
class Killer {
 public:
  explicit Killer(uint64_t seed) : m_random(seed) {}
  bool armed() const { return m_pending.valid(); }
  void arm(pid_t pid, std::chrono::microseconds window) {
    const std::chrono::microseconds delay(m_random() % (window.count() + 1));
    m_pending = std::async(std::launch::async, [pid, delay] {
      std::this_thread::sleep_for(delay);
      return ::kill(pid, SIGKILL);
    });
  }
  // What kill() gave, once it was done within `limit`.
  bool awaitKill(std::chrono::milliseconds limit, int* result) {
    if (!armed() || m_pending.wait_for(limit) != std::future_status::ready)
      return false;
    *result = m_pending.get();
    return true;
  }

 private:
  std::mt19937_64 m_random;
  std::future<int> m_pending;
};

class Driver {
 public:
  explicit Driver(uint64_t seed) : m_random(seed) {}
  // A change the service should accept in `store`.
  Change choose(const Store& store) {
    std::vector<std::string> groups, roomy;  // roomy: room for one more key
    std::vector<std::pair<std::string, std::string>> keys, deletable;
    for (const auto& [name, group] : store) {
      groups.push_back(name);
      if (group.keys.size() < kMaxKeysPerGroup)
        roomy.push_back(name);
      for (const auto& [keyName, key] : group.keys) {
        keys.emplace_back(name, keyName);
        if (key.kind == kPrelive || key.kind == kTerminated)
          deletable.emplace_back(name, keyName);
      }
    }
    const int roll = static_cast<int>(m_random() % 100);
    Change c;
    if (groups.size() < 2 || (groups.size() < kMaxGroups && (roll < 4 || roomy.empty()))) {
      c.kind = Change::AddGroup;
      c.group = "g" + std::to_string(m_next);
      c.value = 1 + m_next % 2;
      c.description = "gd" + std::to_string(m_next++);
    } else if ((roll < 8 && groups.size() > 2) || roomy.empty()) {
      c.kind = Change::DeleteGroup;
      c.group = pick(groups);
      c.force = !store.at(c.group).keys.empty();
    } else if (roll < 14) {
      c.kind = Change::UpdateGroup;
      c.group = pick(groups);
      c.newName = m_random() % 3 == 0 ? "g" + std::to_string(m_next++) : c.group;
      c.description = "gd" + std::to_string(m_next++);
    } else if (roll < 45 || keys.empty()) {
      c.kind = Change::AddKey;
      c.group = pick(roomy);
      c.key = "k" + std::to_string(m_next++);
      c.value = m_random() % 3 == 0 ? kActive : kPrelive;
      c.description = "d" + std::to_string(m_next++);
    } else if (roll < 60 && !deletable.empty()) {
      c.kind = Change::DeleteKey;
      std::tie(c.group, c.key) = pick(deletable);
    } else {
      c.kind = Change::UpdateKey;
      std::tie(c.group, c.key) = pick(keys);
      const Facts& facts = store.at(c.group).keys.at(c.key);
      c.newGroup = c.group;
      c.newName = c.key;
      c.value = facts.kind;
      c.description = facts.description;
      const int what = static_cast<int>(m_random() % 4);
      std::vector<std::string> targets;  // of the same cipher type, with room
      for (const std::string& name : roomy) {
        if (what == 3 && name != c.group && store.at(name).kind == store.at(c.group).kind)
          targets.push_back(name);
      }
      if (what == 1) {
        c.description = "d" + std::to_string(m_next++);
      } else if (what == 2) {
        c.newName = "k" + std::to_string(m_next++);
      } else if (!targets.empty()) {
        c.newGroup = pick(targets);
      } else {
        c.value = nextState(facts.kind);
      }
    }
    return c;
  }
  // Sends `c`; `reply` gets the facts of the answer, `failure` tells why
  // there is none. A change whose call failed may or may not be applied.
  enum Outcome { Acknowledged, InDoubt, Refused };
  Outcome send(KmsClient& service, const Store& store, const Change& c, Facts* reply,
               std::string* failure) {
    const auto answer = [&](const auto& made) {
      reply->tag = made->tag.in(), reply->createTime = made->createTime;
      reply->updateTime = made->updateTime;
    };
    try {
      if (c.kind == Change::AddGroup || c.kind == Change::UpdateGroup) {
        Facets::KeyGroupRecord_var r =
            c.kind == Change::AddGroup
                ? service.modify()->getNewKeyGroup()
                : service.query()->getKeyGroupRecord(store.at(c.group).tag.c_str());
        r->name = (c.kind == Change::AddGroup ? c.group : c.newName).c_str();
        if (c.kind == Change::AddGroup)
          r->type = c.value;
        r->description = c.description.c_str();
        answer(Facets::KeyGroupRecord_var(c.kind == Change::AddGroup
                                              ? service.modify()->createKeyGroup(r.in())
                                              : service.modify()->updateKeyGroup(r.in())));
      } else if (c.kind == Change::DeleteGroup) {
        service.modify()->deleteKeyGroup(store.at(c.group).tag.c_str(), c.force);
      } else if (c.kind == Change::AddKey) {
        Facets::KeyRecord_var r = service.modify()->getNewKey();
        r->name = c.key.c_str();
        r->keyGroup = store.at(c.group).tag.c_str();
        r->state = c.value;
        r->kpkType = 1;
        r->description = c.description.c_str();
        answer(Facets::KeyRecord_var(service.modify()->createKey("", r.in())));
      } else if (c.kind == Change::UpdateKey) {
        const Facts& facts = store.at(c.group).keys.at(c.key);
        // Read-modify-write, as a client must; what it reads is checked too.
        Facets::KeyRecord_var r = service.query()->getKeyRecord(facts.tag.c_str());
        if (r->rev != facts.rev || r->state != facts.kind ||
            facts.description != r->description.in())
          return *failure = "read rev " + std::to_string(r->rev) + ", not as acknowledged", Refused;
        r->name = c.newName.c_str();
        r->keyGroup = store.at(c.newGroup).tag.c_str();
        r->state = c.value;
        r->description = c.description.c_str();
        answer(Facets::KeyRecord_var(service.modify()->updateKey(r.in())));
      } else {
        service.modify()->deleteKey(store.at(c.group).keys.at(c.key).tag.c_str());
      }
      return Acknowledged;
    } catch (const Fw::ServiceException& e) {
      *failure = "ServiceException " + std::to_string(errorCode(e));
      return Refused;
    } catch (const CORBA::SystemException& e) {
      *failure = e._name();
      return InDoubt;
    }
  }

 private:
  template <typename T>
  const T& pick(const std::vector<T>& from) {
    return from[m_random() % from.size()];
  }
  // One step along the line of states, mostly forward, so that keys reach the deletable end.
  long nextState(long state) {
    const bool back = m_random() % 4 == 0;
    switch (state) {
      case kPrelive:
        return kActive;
      case kActive:
        return kInactive;
      case kInactive:
        return back ? kActive : kDeprecated;
      case kDeprecated:
        return back ? kInactive : kTerminated;
      default:
        return kDeprecated;
    }
  }

  std::mt19937_64 m_random;
  long m_next = 0;
};

class KillRun {
 public:
  KillRun(ServiceSandbox& sandbox, uint64_t seed, long kills)
      : m_sandbox(sandbox),
        m_killer(seed),
        m_driver(seed ^ 0x9e3779b97f4a7c15ull),
        m_random(seed + 1),
        m_target(kills) {}

  void run() {
    while (kills < m_target) {
      const Start start = startAndVerify(true);
      if (start == Failed)
        return;
      if (start == KilledWhileStarting)
        continue;
      if (!m_killer.armed()) {
        m_killer.arm(m_sandbox.pid(), 300ms);
      }
      ASSERT_NO_FATAL_FAILURE(driveUntilKilled());
    }
    // The last kill is recovered from too, and the service stops in order.
    ASSERT_EQ(startAndVerify(false), Serving);
    ASSERT_EQ(::kill(m_sandbox.pid(), SIGTERM), 0);
    EXPECT_EQ(reap(), 0) << tail();
  }

  long kills = 0, acknowledged = 0, inDoubt = 0;
  std::string lastChange;

 private:
  enum Start { Serving, KilledWhileStarting, Failed };
  // Starts the service (now and then with the killer armed) until it serves; the
  // store must be as acknowledged, or with the change in doubt applied.
  Start startAndVerify(bool mayArm) {
    const Clock::time_point began = Clock::now();
    m_sandbox.launch({"-console"});
    const pid_t pid = m_sandbox.pid();
    if (mayArm && m_random() % 8 == 0 && !m_killer.armed()) {
      m_killer.arm(pid, std::chrono::duration_cast<std::chrono::microseconds>(m_startTime * 2));
    }
    std::unique_ptr<KmsClient> service;
    Store actual;
    bool read = false;
    while (!read && !m_sandbox.ended()) {
      try {
        if (!service)
          service = std::make_unique<KmsClient>(m_sandbox.reference());
        actual = readStore(service->query());
        read = true;
      } catch (const Fw::ServiceException& e) {
        ADD_FAILURE() << "reading the store after a restart: " << errorCode(e) << tail();
        return Failed;
      } catch (const CORBA::SystemException&) {
        std::this_thread::sleep_for(5ms);  // the client fetches what failed again
      }
      if (Clock::now() > began + 300s) {
        ADD_FAILURE() << "the service did not serve within 300 s" << tail();
        return Failed;
      }
    }
    if (!read) {  // killed while starting, or ended on its own
      int killed = 0;
      const bool armed = m_killer.armed();
      if (armed && !m_killer.awaitKill(30s, &killed)) {
        ADD_FAILURE() << "the killer did not report";  // the pid stays unreaped
        return Failed;
      }
      const int status = reap();
      if (armed && status == 128 + SIGKILL)
        return ++kills, KilledWhileStarting;
      ADD_FAILURE() << "the service did not start after a kill: status " << status << tail();
      return Failed;
    }
    m_startTime = (m_startTime * 7 + (Clock::now() - began)) / 8;
    // The dead one's run files did not stand in the way and now name this one;
    // the IOR file is renamed into place a moment after the manager answers.
    EXPECT_EQ(m_sandbox.readFile("var/vrkms/vrkms.pid"), std::to_string(pid) + "\n");
    std::string ior;
    for (auto until = Clock::now() + 10s; ior.empty() && Clock::now() < until;
         std::this_thread::sleep_for(5ms)) {
      ior = m_sandbox.readFile("var/vrkms/KMS.KMSMgr.ior");
    }
    EXPECT_EQ(ior.substr(0, 4), "IOR:");
    std::string beforeWhy, afterWhy;
    const bool asBefore = matches(m_expected, actual, "", &beforeWhy);
    const bool asAfter = m_inDoubt && matches(*m_inDoubt, actual, "", &afterWhy);
    EXPECT_TRUE(asBefore || asAfter)
        << kills << ": " << beforeWhy << "; " << afterWhy << "; last " << lastChange << tail();
    m_expected = actual;  // the driver goes on from what it found
    m_inDoubt.reset();
    m_connection = std::move(service);
    return ::testing::Test::HasFailure() ? Failed : Serving;
  }
  // Applies changes until the killer's kill ends the service.
  void driveUntilKilled() {
    for (;;) {
      const Change change = m_driver.choose(m_expected);
      lastChange = change.text();
      Facts reply;
      std::string failure;
      const Driver::Outcome outcome =
          m_driver.send(*m_connection, m_expected, change, &reply, &failure);
      if (outcome == Driver::Acknowledged) {
        m_expected = applied(m_expected, change, reply);
        ++acknowledged;
        continue;
      }
      ASSERT_NE(outcome, Driver::Refused) << lastChange << ": " << failure << tail();
      m_inDoubt = applied(m_expected, change, Facts());
      ++inDoubt;
      int killed = -1;
      ASSERT_TRUE(m_killer.awaitKill(30s, &killed)) << lastChange << ": " << failure << tail();
      EXPECT_EQ(killed, 0);
      EXPECT_EQ(reap(), 128 + SIGKILL) << tail();
      m_connection.reset();
      ++kills;
      return;
    }
  }

  int reap() { return m_sandbox.waitForExit(std::chrono::hours(1)); }

  std::string tail() const {
    const std::string log = m_sandbox.debugLog();
    return "\n" + m_sandbox.stderrText() + log.substr(log.size() > 3000 ? log.size() - 3000 : 0);
  }

  ServiceSandbox& m_sandbox;
  Killer m_killer;  // gone before the sandbox reaps what it killed
  Driver m_driver;
  std::mt19937_64 m_random;
  const long m_target;
  std::unique_ptr<KmsClient> m_connection;
  Store m_expected;
  std::optional<Store> m_inDoubt;
  Clock::duration m_startTime = 250ms;
};

long envNumber(const char* name, long fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtol(text, nullptr, 10) : fallback;
}

TEST(VrkmsKill, EveryAcknowledgedChangeSurvivesSigkillOfTheServiceAtRandomMoments) {
  const long kills = envNumber("VRKMS_KILLS", 10);
  uint64_t seed = static_cast<uint64_t>(envNumber("VRKMS_KILL_SEED", 0));
  seed = seed != 0 ? seed : (static_cast<uint64_t>(std::random_device()()) & 0x7fffffff) + 1;
  std::cout << "[ kill     ] VRKMS_KILL_SEED=" << seed << ", " << kills << " kills" << std::endl;
  ServiceSandbox sandbox(1);  // debug logging low: hundreds of starts write one log
  ASSERT_TRUE(sandbox.makeStore());
  KillRun run(sandbox, seed, kills);
  run.run();
  std::cout << "[ kill     ] " << run.kills << " kills, " << run.acknowledged
            << " changes acknowledged, " << run.inDoubt << " in doubt" << std::endl;
  EXPECT_GE(run.kills, kills);
  EXPECT_GT(run.acknowledged, 0);
}

}  // namespace

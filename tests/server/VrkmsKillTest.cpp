// The live service killed again and again: this process drives a stream of
// changes (groups and keys added, renamed, described, moved between groups,
// stepped through their states, deleted) through the remote interface,
// while a forked killer process (VrkmsKiller.h) sends SIGKILL to the
// service at a random moment. After every kill the service is started
// again on the same root, with the pid and IOR files the dead one left, and
// the store it serves must hold every acknowledged change, and the one
// change in flight either whole or not at all. The driver then goes on from
// the state it found. Now and then the killer is armed while the service
// is still starting, so that recovery itself is cut short.
//
// VRKMS_KILLS sets the number of kills: 10 by default, 200 in the run of the
// tests labelled long (`make test-long`); VRKMS_KILL_SEED replays a run (the
// seed is printed). Runs a process named vrkms (RESOURCE_LOCK
// vrkms_process); a start refused because some other vrkms runs on this
// machine is retried.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <KMS.h>

#include "server/CtlOutput.h"
#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"
#include "server/VrkmsKillModel.h"
#include "server/VrkmsKiller.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;
using namespace std::chrono_literals;
using KillModel::Change;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kMaxGroups = 6;
constexpr size_t kMaxKeysPerGroup = 8;

long envNumber(const char* name, long fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtol(text, nullptr, 10) : fallback;
}

using ServiceClient::errorCode;

// Everything the service holds, as the model sees it.
KillModel::Store readStore(Facets::KMSQueryableFacet_ptr query) {
  KillModel::Store store;
  Facets::KeyGroupRecordSeq_var groups = query->getAllKeyGroupRecords();
  for (CORBA::ULong i = 0; i < groups->length(); ++i) {
    const Facets::KeyGroupRecord& record = groups[i];
    KillModel::GroupFacts& group = store[record.name.in()];
    group.tag = record.tag.in();
    group.type = record.type;
    group.description = record.description.in();
    group.rev = record.rev;
    group.createTime = record.createTime;
    group.updateTime = record.updateTime;
    Facets::KeyRecordSeq_var keys = query->getAllKeyRecordsInGroup(record.tag.in());
    for (CORBA::ULong k = 0; k < keys->length(); ++k) {
      KillModel::KeyFacts& key = group.keys[keys[k].name.in()];
      key.tag = keys[k].tag.in();
      key.state = keys[k].state;
      key.description = keys[k].description.in();
      key.rev = keys[k].rev;
      key.createTime = keys[k].createTime;
      key.updateTime = keys[k].updateTime;
    }
  }
  return store;
}

struct Counts {
  long kills = 0;
  long killsWhileStarting = 0;
  long starts = 0;
  long staleRunFiles = 0;  // services that started over the pid file of a dead one
  long startsRefusedByGate = 0;
  long acknowledged = 0;
  long inDoubt = 0;
  long inDoubtApplied = 0;
  long notBegun = 0;
};

// How a change went.
enum class Outcome {
  Acknowledged,
  InDoubt,   // sent, and the reply was lost
  NotBegun,  // the service went away before the change was sent
  Refused,   // the service answered with an error: a fault of model or service
};

class Driver {
 public:
  explicit Driver(uint64_t seed) : m_random(seed) {}

  // A change the service should accept in `store`.
  Change choose(const KillModel::Store& store) {
    std::vector<std::string> groups;
    std::vector<std::string> roomy;  // groups with room for one more key
    std::vector<std::pair<std::string, std::string>> keys;
    std::vector<std::pair<std::string, std::string>> deletable;
    for (const auto& [name, group] : store) {
      groups.push_back(name);
      if (group.keys.size() < kMaxKeysPerGroup) {
        roomy.push_back(name);
      }
      for (const auto& [keyName, key] : group.keys) {
        keys.emplace_back(name, keyName);
        if (key.state == KillModel::kPrelive || key.state == KillModel::kTerminated) {
          deletable.emplace_back(name, keyName);
        }
      }
    }
    const int roll = static_cast<int>(m_random() % 100);
    Change change;
    if (groups.size() < 2 || (roll < 4 && groups.size() < kMaxGroups) ||
        (roomy.empty() && groups.size() < kMaxGroups)) {
      change.kind = Change::AddGroup;
      change.group = "g" + std::to_string(m_next);
      change.type = 1 + m_next % 2;
      change.description = "gd" + std::to_string(m_next++);
      return change;
    }
    if ((roll < 8 && groups.size() > 2) || roomy.empty()) {
      change.kind = Change::DeleteGroup;
      change.group = pick(groups);
      change.force = !store.at(change.group).keys.empty();
      return change;
    }
    if (roll < 14) {
      change.kind = Change::UpdateGroup;
      change.group = pick(groups);
      change.newName = m_random() % 3 == 0 ? "g" + std::to_string(m_next++) : change.group;
      change.description = "gd" + std::to_string(m_next++);
      return change;
    }
    if (roll < 45 || keys.empty()) {
      change.kind = Change::AddKey;
      change.group = pick(roomy);
      change.key = "k" + std::to_string(m_next++);
      change.state = m_random() % 3 == 0 ? KillModel::kActive : KillModel::kPrelive;
      change.description = "d" + std::to_string(m_next++);
      return change;
    }
    if (roll < 60 && !deletable.empty()) {
      const auto& [group, key] = deletable[m_random() % deletable.size()];
      change.kind = Change::DeleteKey;
      change.group = group;
      change.key = key;
      return change;
    }
    const auto& [group, key] = keys[m_random() % keys.size()];
    const KillModel::KeyFacts& facts = store.at(group).keys.at(key);
    change.kind = Change::UpdateKey;
    change.group = group;
    change.key = key;
    change.newGroup = group;
    change.newName = key;
    change.state = facts.state;
    change.description = facts.description;
    const int what = static_cast<int>(m_random() % 4);
    if (what == 1) {
      change.description = "d" + std::to_string(m_next++);
    } else if (what == 2) {
      change.newName = "k" + std::to_string(m_next++);
    } else if (what == 3) {
      // A move to another group of the same cipher type, with room.
      std::vector<std::string> targets;
      for (const std::string& name : roomy) {
        if (name != group && store.at(name).type == store.at(group).type) {
          targets.push_back(name);
        }
      }
      if (!targets.empty()) {
        change.newGroup = pick(targets);
        return change;
      }
    }
    if (what == 0 || what == 3) {
      change.state = nextState(facts.state);
    }
    return change;
  }

  // Sends `change` to the service; `reply` gets the facts of its answer.
  // `failure` tells a refusal or, for a lost reply, the system exception.
  Outcome send(KmsClient& service, const KillModel::Store& store, const Change& change,
               KillModel::Reply* reply, std::string* failure) {
    bool sent = false;
    try {
      switch (change.kind) {
        case Change::AddGroup: {
          Facets::KeyGroupRecord_var record = service.modify()->getNewKeyGroup();
          record->name = change.group.c_str();
          record->type = change.type;
          record->description = change.description.c_str();
          sent = true;
          Facets::KeyGroupRecord_var made = service.modify()->createKeyGroup(record.in());
          *reply = {made->tag.in(), made->createTime, made->updateTime};
          break;
        }
        case Change::UpdateGroup: {
          Facets::KeyGroupRecord_var record =
              service.query()->getKeyGroupRecord(store.at(change.group).tag.c_str());
          record->name = change.newName.c_str();
          record->description = change.description.c_str();
          sent = true;
          Facets::KeyGroupRecord_var updated = service.modify()->updateKeyGroup(record.in());
          *reply = {updated->tag.in(), updated->createTime, updated->updateTime};
          break;
        }
        case Change::DeleteGroup:
          sent = true;
          service.modify()->deleteKeyGroup(store.at(change.group).tag.c_str(), change.force);
          break;
        case Change::AddKey: {
          Facets::KeyRecord_var record = service.modify()->getNewKey();
          record->name = change.key.c_str();
          record->keyGroup = store.at(change.group).tag.c_str();
          record->state = change.state;
          record->kpkType = 1;
          record->description = change.description.c_str();
          sent = true;
          Facets::KeyRecord_var made = service.modify()->createKey("", record.in());
          *reply = {made->tag.in(), made->createTime, made->updateTime};
          break;
        }
        case Change::UpdateKey: {
          const KillModel::KeyFacts& facts = store.at(change.group).keys.at(change.key);
          // Read-modify-write, as a client must; what it reads is checked too.
          Facets::KeyRecord_var record = service.query()->getKeyRecord(facts.tag.c_str());
          if (record->rev != facts.rev || record->state != facts.state ||
              facts.description != record->description.in()) {
            *failure = "the service reads " + change.group + "/" + change.key + " at rev " +
                       std::to_string(record->rev) + ", acknowledged was rev " +
                       std::to_string(facts.rev);
            return Outcome::Refused;
          }
          record->name = change.newName.c_str();
          record->keyGroup = store.at(change.newGroup).tag.c_str();
          record->state = change.state;
          record->description = change.description.c_str();
          sent = true;
          Facets::KeyRecord_var updated = service.modify()->updateKey(record.in());
          *reply = {updated->tag.in(), updated->createTime, updated->updateTime};
          break;
        }
        case Change::DeleteKey:
          sent = true;
          service.modify()->deleteKey(store.at(change.group).keys.at(change.key).tag.c_str());
          break;
      }
      return Outcome::Acknowledged;
    } catch (const Fw::ServiceException& e) {
      *failure = "ServiceException " + std::to_string(errorCode(e));
      return Outcome::Refused;
    } catch (const CORBA::SystemException& e) {
      *failure = e._name();
      return sent ? Outcome::InDoubt : Outcome::NotBegun;
    }
  }

 private:
  template <typename T>
  const T& pick(const std::vector<T>& from) {
    return from[m_random() % from.size()];
  }

  // One step along the line of states, mostly forward, so that keys reach
  // the deletable end.
  long nextState(long state) {
    const bool back = m_random() % 4 == 0;
    switch (state) {
      case KillModel::kPrelive:
        return KillModel::kActive;
      case KillModel::kActive:
        return KillModel::kInactive;
      case KillModel::kInactive:
        return back ? KillModel::kActive : KillModel::kDeprecated;
      case KillModel::kDeprecated:
        return back ? KillModel::kInactive : KillModel::kTerminated;
      default:
        return KillModel::kDeprecated;
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
    ASSERT_TRUE(m_killer.running());
    while (m_counts.kills < m_target) {
      const Start start = startAndVerify(true);
      if (start == Start::Failed) {
        return;
      }
      if (start == Start::KilledWhileStarting) {
        continue;
      }
      if (!m_killer.armed()) {
        ASSERT_TRUE(m_killer.arm(m_sandbox.pid(), kChangeWindow));
      }
      ASSERT_NO_FATAL_FAILURE(driveUntilKilled());
    }
    // The last kill is recovered from too, and the service stops in order.
    ASSERT_EQ(startAndVerify(false), Start::Serving);
    ASSERT_EQ(::kill(m_sandbox.pid(), SIGTERM), 0);
    EXPECT_EQ(reap(), 0) << tail();
  }

  const Counts& counts() const { return m_counts; }
  const std::string& lastChange() const { return m_lastChange; }

 private:
  // From arming to the kill, while changes run.
  static constexpr std::chrono::microseconds kChangeWindow{300000};

  enum class Start { Serving, KilledWhileStarting, Failed };

  // Starts the service, now and then with the killer already armed, and
  // waits until it serves; then the store must be as acknowledged, or with
  // the change in doubt applied. Without `mayArm` no kill is pending.
  Start startAndVerify(bool mayArm) {
    const auto deadline = Clock::now() + 300s;
    for (;;) {
      const long stalePid =
          std::strtol(m_sandbox.readFile("var/vrkms/vrkms.pid").c_str(), nullptr, 10);
      const bool stale = stalePid > 0 && ::kill(static_cast<pid_t>(stalePid), 0) != 0;
      const Clock::time_point began = Clock::now();
      m_sandbox.launch({"-console"});
      const pid_t pid = m_sandbox.pid();
      ++m_counts.starts;
      if (mayArm && m_random() % 8 == 0 && !m_killer.armed()) {
        const auto window = std::chrono::duration_cast<std::chrono::microseconds>(m_startTime * 2);
        EXPECT_TRUE(m_killer.arm(pid, window));
      }
      std::unique_ptr<KmsClient> service;
      KillModel::Store actual;
      bool read = false;
      while (!read && !m_sandbox.ended()) {
        try {
          if (!service) {
            service = std::make_unique<KmsClient>(m_sandbox.reference());
          }
          actual = readStore(service->query());
          read = true;
        } catch (const Fw::ServiceException& e) {
          ADD_FAILURE() << "reading the store after a restart: ServiceException " << errorCode(e)
                        << tail();
          return Start::Failed;
        } catch (const CORBA::SystemException&) {
          std::this_thread::sleep_for(5ms);  // the client fetches what failed again
        }
        if (Clock::now() > deadline) {
          ADD_FAILURE() << "the service did not serve within 300 s" << tail();
          return Start::Failed;
        }
      }
      if (!read) {
        if (m_killer.armed()) {
          // Killed while starting, or ended on its own before the kill.
          Killer::Report report;
          if (!m_killer.awaitReport(30s, &report)) {
            ADD_FAILURE() << "the killer did not report";
            return Start::Failed;
          }
          const int status = reap();
          if (status == 128 + SIGKILL) {
            ++m_counts.kills;
            ++m_counts.killsWhileStarting;
            return Start::KilledWhileStarting;
          }
          if (status != 0) {
            ADD_FAILURE() << "the service did not start after a kill: status " << status << tail();
            return Start::Failed;
          }
        } else {
          const int status = reap();
          if (status != 0) {
            ADD_FAILURE() << "the service did not start after a kill: status " << status << tail();
            return Start::Failed;
          }
        }
        // Ended with 0 before serving: some other vrkms runs on this machine
        // and the start gate refused. Wait for it to go.
        ++m_counts.startsRefusedByGate;
        if (Clock::now() > deadline) {
          ADD_FAILURE() << "another vrkms kept this one from starting for 300 s";
          return Start::Failed;
        }
        std::this_thread::sleep_for(1s);
        continue;
      }
      m_startTime = (m_startTime * 7 + (Clock::now() - began)) / 8;
      m_counts.staleRunFiles += stale ? 1 : 0;
      // The run files of the dead service did not stand in the way, and now
      // name this one.
      EXPECT_EQ(m_sandbox.readFile("var/vrkms/vrkms.pid"), std::to_string(pid) + "\n");
      // The manager answers by its corbaloc name a moment before its IOR
      // file has been renamed into place.
      std::string ior;
      for (auto until = Clock::now() + 10s; ior.empty() && Clock::now() < until;
           std::this_thread::sleep_for(5ms)) {
        ior = m_sandbox.readFile("var/vrkms/KMS.KMSMgr.ior");
      }
      EXPECT_EQ(ior.substr(0, 4), "IOR:");
      compare(actual);
      m_connection = std::move(service);
      return ::testing::Test::HasFailure() ? Start::Failed : Start::Serving;
    }
  }

  // The store read back after a restart against what was acknowledged and
  // what was in doubt; the driver goes on from what it found.
  void compare(const KillModel::Store& actual) {
    std::string asBeforeWhy;
    std::string asAfterWhy;
    const bool asBefore = KillModel::matches(m_expected, actual, &asBeforeWhy);
    const bool asAfter = m_inDoubt && KillModel::matches(*m_inDoubt, actual, &asAfterWhy);
    if (!asBefore && !asAfter) {
      ADD_FAILURE() << "after kill " << m_counts.kills << " the store is neither as acknowledged ("
                    << asBeforeWhy << ")"
                    << (m_inDoubt ? " nor with the change in doubt (" + asAfterWhy + ")" : "")
                    << "; last change: " << m_lastChange << tail();
    }
    if (m_inDoubt && asAfter && !asBefore) {
      ++m_counts.inDoubtApplied;
    }
    m_expected = actual;
    m_inDoubt.reset();
  }

  // Applies changes until the killer's kill ends the service.
  void driveUntilKilled() {
    for (;;) {
      const Change change = m_driver.choose(m_expected);
      m_lastChange = change.text();
      KillModel::Reply reply;
      std::string failure;
      const Outcome outcome = m_driver.send(*m_connection, m_expected, change, &reply, &failure);
      if (outcome == Outcome::Acknowledged) {
        m_expected = KillModel::applied(m_expected, change, reply);
        ++m_counts.acknowledged;
        continue;
      }
      if (outcome == Outcome::Refused) {
        FAIL() << change.text() << ": " << failure << tail();
      }
      if (outcome == Outcome::InDoubt) {
        m_inDoubt = KillModel::applied(m_expected, change, KillModel::Reply());
        ++m_counts.inDoubt;
      } else {
        ++m_counts.notBegun;
      }
      Killer::Report report;
      ASSERT_TRUE(m_killer.awaitReport(30s, &report))
          << change.text() << ": " << failure << ", yet the service was not killed" << tail();
      EXPECT_EQ(report.pid, m_sandbox.pid());
      EXPECT_EQ(report.killResult, 0);
      EXPECT_EQ(reap(), 128 + SIGKILL) << tail();
      m_connection.reset();
      ++m_counts.kills;
      return;
    }
  }

  // Waits for the service's end, which the killer may have caused: its
  // exit status, or 128 and the signal.
  int reap() { return m_sandbox.waitForExit(std::chrono::hours(1)); }

  // The end of what the service wrote, for a failure message.
  std::string tail() const {
    const std::string log = m_sandbox.debugLog();
    return "\n--- stderr\n" + m_sandbox.readFile("stderr.txt") + "--- end of the debug log\n" +
           log.substr(log.size() > 3000 ? log.size() - 3000 : 0);
  }

  ServiceSandbox& m_sandbox;
  Killer m_killer;  // gone before the sandbox reaps what it killed
  Driver m_driver;
  std::mt19937_64 m_random;
  const long m_target;
  Counts m_counts;
  std::unique_ptr<KmsClient> m_connection;
  KillModel::Store m_expected;
  std::optional<KillModel::Store> m_inDoubt;
  std::string m_lastChange;
  Clock::duration m_startTime = 250ms;
};

TEST(VrkmsKill, EveryAcknowledgedChangeSurvivesSigkillOfTheServiceAtRandomMoments) {
  const long kills = envNumber("VRKMS_KILLS", 10);
  const uint64_t seed = static_cast<uint64_t>(envNumber("VRKMS_KILL_SEED", 0)) != 0
                            ? static_cast<uint64_t>(envNumber("VRKMS_KILL_SEED", 0))
                            : (static_cast<uint64_t>(std::random_device()()) & 0x7fffffff) + 1;
  std::cout << "[ kill     ] seed " << seed << " (VRKMS_KILL_SEED=" << seed << " replays it), "
            << kills << " kills" << std::endl;
  // Debug logging kept low: hundreds of starts write to one log.
  ServiceSandbox sandbox(1);
  ASSERT_TRUE(sandbox.makeStore());

  KillRun run(sandbox, seed, kills);
  run.run();
  const Counts& c = run.counts();
  const std::string app = sandbox.readFile("logs/vrkms/vrkms_app.log");
  std::cout << "[ kill     ] " << c.kills << " kills (" << c.killsWhileStarting
            << " while starting), " << c.starts << " starts (" << c.staleRunFiles
            << " over the pid file of a killed one, " << c.startsRefusedByGate
            << " refused while another vrkms ran), " << c.acknowledged << " changes acknowledged, "
            << c.inDoubt << " in doubt (" << c.inDoubtApplied << " of them applied), " << c.notBegun
            << " not begun; recoveries in the log: " << CtlOutput::countOf(app, "286-55 ")
            << " rolled back, " << CtlOutput::countOf(app, "286-56 ") << " completed forward"
            << std::endl;
  EXPECT_GE(c.kills, kills);
  EXPECT_GT(c.acknowledged, 0);
  if (::testing::Test::HasFailure()) {
    std::cout << "[ kill     ] replay with VRKMS_KILL_SEED=" << seed << "; last change "
              << run.lastChange() << std::endl;
  }
}

}  // namespace

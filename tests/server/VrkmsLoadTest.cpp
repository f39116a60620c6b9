// One vrkms under load: 32 client threads mix reads and changes for
// VRKMS_LOAD_SECONDS seconds (5 by default, 30 in the run of the tests
// labelled long, `make test-long`). Each thread owns a key group and
// keeps a model of what the service acknowledged there; all threads fight
// over one shared key with read-modify-write updates, where the only
// expected refusal is the stale record (1228). Afterwards, and again after a
// restart, the store holds exactly the acknowledged changes.
//
// Runs a process named vrkms (RESOURCE_LOCK vrkms_process).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <KMS.h>

#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"

namespace Fw = Ardentis::Vaultrest::TL::Framework;
namespace Remote = Ardentis::Vaultrest::DL::KMS;
namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;

namespace {

constexpr int kThreads = 32;
constexpr long kActive = 1;
constexpr long kInactive = 2;
constexpr long kPrelive = 4;

using ServiceClient::errorCode;

// The facets of one client, fetched before the threads share them.
struct Facet {
  Facets::KMSQueryableFacet_ptr query;
  Facets::KMSModifiableFacet_ptr modify;
  explicit Facet(KmsClient& client) : query(client.query()), modify(client.modify()) {}
};

// What one thread knows of its own group: name to (state, description).
struct KeyModel {
  long state;
  std::string description;
};
typedef std::map<std::string, KeyModel> GroupModel;

// What the threads share: the failures seen, the operations (of one to
// three calls each) that ended without an error and of those the
// acknowledged changes, and the acknowledged updates of the shared key.
struct Shared {
  std::mutex mutex;
  std::vector<std::string> failures;
  std::atomic<long> operations{0};
  std::atomic<long> changes{0};
  long successes = 0;
  long topRev = 0;
  std::string topDescription;

  void fail(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    failures.push_back(what);
  }
};

class LoadThread {
 public:
  LoadThread(int index, const Facet& facet, const std::string& sharedTag, Shared& shared)
      : m_index(index),
        m_facet(facet),
        m_sharedTag(sharedTag),
        m_shared(shared),
        m_random(static_cast<unsigned>(index) * 7919u + 1u) {}

  void run(std::chrono::steady_clock::time_point until) {
    m_group = "t" + std::to_string(m_index);
    if (!attempt("group create", [&] {
          Facets::KeyGroupRecord_var record = m_facet.modify->getNewKeyGroup();
          record->name = m_group.c_str();
          record->type = 1 + m_index % 4;
          Facets::KeyGroupRecord_var made = m_facet.modify->createKeyGroup(record.in());
          m_groupTag = made->tag.in();
        })) {
      return;
    }
    while (std::chrono::steady_clock::now() < until) {
      const int choice = static_cast<int>(m_random() % 100);
      if (choice < 30) {
        read();
      } else if (choice < 45) {
        create();
      } else if (choice < 60) {
        describe();
      } else if (choice < 70) {
        remove();
      } else if (choice < 75) {
        activate();
      } else {
        updateShared();
      }
    }
  }

  const std::string& group() const { return m_group; }
  const std::string& groupTag() const { return m_groupTag; }
  const GroupModel& model() const { return m_model; }

 private:
  template <typename Call>
  bool attempt(const char* what, Call&& call) {
    try {
      call();
      ++m_shared.operations;
      return true;
    } catch (const Fw::ServiceException& e) {
      m_shared.fail(std::string(what) + ": " + std::to_string(errorCode(e)));
    } catch (const CORBA::Exception& e) {
      m_shared.fail(std::string(what) + ": " + e._name());
    }
    return false;
  }

  std::string pick(bool deletableOnly) {
    std::vector<std::string> names;
    for (const auto& entry : m_model) {
      if (!deletableOnly || entry.second.state == kPrelive) {
        names.push_back(entry.first);
      }
    }
    return names.empty() ? std::string() : names[m_random() % names.size()];
  }

  int count(long state) const {
    int n = 0;
    for (const auto& entry : m_model) {
      n += entry.second.state == state ? 1 : 0;
    }
    return n;
  }

  void read() {
    const std::string name = pick(false);
    if (name.empty()) {
      return;
    }
    attempt("read", [&] {
      Facets::KeyRecord_var record =
          m_facet.query->getKeyRecordByName(m_groupTag.c_str(), name.c_str());
      const KeyModel& known = m_model.at(name);
      if (record->state != known.state || known.description != record->description.in()) {
        m_shared.fail("read: " + name + " differs from what was acknowledged");
      }
      if (record->state == kActive || record->state == kInactive) {
        Facets::KeyRecord_var key = m_facet.query->getKey(record->tag.in());
        if (key->encKey.length() == 0) {
          m_shared.fail("getKey: no key");
        }
      }
    });
  }

  void create() {
    if (m_model.size() >= 24) {
      return;
    }
    const std::string name = "k" + std::to_string(m_next++);
    attempt("create", [&] {
      Facets::KeyRecord_var record = m_facet.modify->getNewKey();
      record->name = name.c_str();
      record->keyGroup = m_groupTag.c_str();
      record->state = kPrelive;
      record->kpkType = 1;
      record->description = "new";
      Facets::KeyRecord_var made = m_facet.modify->createKey("", record.in());
      m_model[name] = {kPrelive, "new"};
      ++m_shared.changes;
    });
  }

  // Read-modify-write of one of this thread's keys.
  void describe() {
    const std::string name = pick(false);
    if (name.empty()) {
      return;
    }
    const std::string text = "d" + std::to_string(m_next++);
    attempt("describe", [&] {
      Facets::KeyRecord_var record =
          m_facet.query->getKeyRecordByName(m_groupTag.c_str(), name.c_str());
      record->description = text.c_str();
      Facets::KeyRecord_var updated = m_facet.modify->updateKey(record.in());
      m_model[name].description = text;
      ++m_shared.changes;
    });
  }

  void remove() {
    const std::string name = pick(true);
    if (name.empty()) {
      return;
    }
    attempt("delete", [&] {
      Facets::KeyRecord_var record =
          m_facet.query->getKeyRecordByName(m_groupTag.c_str(), name.c_str());
      m_facet.modify->deleteKey(record->tag.in());
      m_model.erase(name);
      ++m_shared.changes;
    });
  }

  // A prelive key becomes the active one; the group's active key before it
  // is demoted by the service.
  void activate() {
    const std::string name = pick(true);
    if (name.empty() || count(kInactive) >= 8) {
      return;
    }
    attempt("activate", [&] {
      Facets::KeyRecord_var record =
          m_facet.query->getKeyRecordByName(m_groupTag.c_str(), name.c_str());
      record->state = kActive;
      Facets::KeyRecord_var updated = m_facet.modify->updateKey(record.in());
      for (auto& entry : m_model) {
        if (entry.second.state == kActive) {
          entry.second.state = kInactive;
        }
      }
      m_model[name].state = kActive;
      ++m_shared.changes;
    });
  }

  // All threads at once: a stale read is refused, and that is all.
  void updateShared() {
    const std::string text = "t" + std::to_string(m_index) + "-" + std::to_string(m_next++);
    try {
      Facets::KeyRecord_var record = m_facet.query->getKeyRecord(m_sharedTag.c_str());
      record->description = text.c_str();
      Facets::KeyRecord_var updated = m_facet.modify->updateKey(record.in());
      ++m_shared.operations;
      ++m_shared.changes;
      std::lock_guard<std::mutex> lock(m_shared.mutex);
      ++m_shared.successes;
      if (updated->rev > m_shared.topRev) {
        m_shared.topRev = updated->rev;
        m_shared.topDescription = text;
      }
    } catch (const Fw::ServiceException& e) {
      if (errorCode(e) != 1228) {
        m_shared.fail("shared: " + std::to_string(errorCode(e)));
      }
    } catch (const CORBA::Exception& e) {
      m_shared.fail(std::string("shared: ") + e._name());
    }
  }

  const int m_index;
  Facet m_facet;
  const std::string m_sharedTag;
  Shared& m_shared;
  std::mt19937 m_random;
  std::string m_group;
  std::string m_groupTag;
  GroupModel m_model;
  int m_next = 0;
};

// Compares every thread's group and the shared key with the service.
void expectStoreAsAcknowledged(const Facet& facet,
                               const std::vector<std::unique_ptr<LoadThread>>& threads,
                               const std::string& sharedTag, const Shared& shared) {
  size_t keys = 1;  // the shared key
  for (const auto& thread : threads) {
    Facets::KeyRecordSeq_var records =
        facet.query->getAllKeyRecordsInGroup(thread->groupTag().c_str());
    GroupModel stored;
    for (CORBA::ULong i = 0; i < records->length(); ++i) {
      stored[records[i].name.in()] = {records[i].state, records[i].description.in()};
    }
    ASSERT_EQ(stored.size(), thread->model().size()) << thread->group();
    for (const auto& entry : thread->model()) {
      const auto it = stored.find(entry.first);
      ASSERT_NE(it, stored.end()) << thread->group() << "/" << entry.first;
      EXPECT_EQ(it->second.state, entry.second.state) << thread->group() << "/" << entry.first;
      EXPECT_EQ(it->second.description, entry.second.description)
          << thread->group() << "/" << entry.first;
    }
    keys += stored.size();
  }
  const Facets::KeyStoreStats stats = facet.query->getKeyStoreStats();
  EXPECT_EQ(stats.numKeys, static_cast<CORBA::LongLong>(keys));
  EXPECT_EQ(stats.numKeyGroups, static_cast<CORBA::LongLong>(threads.size() + 1));
  Facets::KeyRecord_var hot = facet.query->getKeyRecord(sharedTag.c_str());
  EXPECT_EQ(hot->rev, 1 + shared.successes);
  EXPECT_EQ(hot->description.in(), shared.topDescription);
}

void runLoad(ServiceSandbox& service);

TEST(VrkmsLoad, ThirtyTwoClientsMixReadsAndChangesAndTheStoreHoldsWhatWasAcknowledged) {
  ServiceSandbox service(4);
  // A CORBA exception is no std::exception: name it.
  try {
    runLoad(service);
  } catch (const Fw::ServiceException& e) {
    FAIL() << "ServiceException " << errorCode(e);
  } catch (const CORBA::Exception& e) {
    const std::string log = service.debugLog();
    FAIL() << e._name() << "\n"
           << service.stderrText() << log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
  }
}

void runLoad(ServiceSandbox& service) {
  ASSERT_TRUE(service.makeStore());
  ASSERT_TRUE(service.start()) << service.stderrText();
  const char* configured = std::getenv("VRKMS_LOAD_SECONDS");
  const int seconds = configured != nullptr ? std::atoi(configured) : 5;

  std::string sharedTag;
  auto client = std::make_unique<KmsClient>(service.reference());
  const Facet facet(*client);
  {
    Facets::KeyGroupRecord_var group = facet.modify->getNewKeyGroup();
    group->name = "shared";
    group->type = 3;
    group = facet.modify->createKeyGroup(group.in());
    Facets::KeyRecord_var key = facet.modify->getNewKey();
    key->name = "hot";
    key->keyGroup = group->tag;
    key->state = kPrelive;
    key->kpkType = 1;
    key = facet.modify->createKey("", key.in());
    sharedTag = key->tag.in();
  }

  Shared shared;
  std::vector<std::unique_ptr<LoadThread>> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.push_back(std::make_unique<LoadThread>(i, facet, sharedTag, shared));
  }
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  std::vector<std::thread> running;
  for (auto& thread : threads) {
    running.emplace_back([&thread, until] { thread->run(until); });
  }
  for (std::thread& t : running) {
    t.join();
  }
  EXPECT_TRUE(shared.failures.empty())
      << shared.failures.size() << " failures, the first " << shared.failures.front();
  EXPECT_GT(shared.successes, 0);
  std::cout << "[ load     ] " << shared.operations << " operations, " << shared.changes
            << " acknowledged changes (" << shared.successes << " of the shared key), in "
            << seconds << " s" << std::endl;

  expectStoreAsAcknowledged(facet, threads, sharedTag, shared);
  // What was acknowledged is on disk.
  client.reset();
  EXPECT_EQ(service.terminate().second, 0);
  ASSERT_TRUE(service.start()) << service.stderrText();
  client = std::make_unique<KmsClient>(service.reference());
  expectStoreAsAcknowledged(Facet(*client), threads, sharedTag, shared);
}

}  // namespace

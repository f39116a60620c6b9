// 32 client threads mix reads and changes for VRKMS_LOAD_SECONDS (5; 30 in
// `make test-long`), each in a group of its own and all on one shared key
// (refused only as stale, 1228); the store then holds what was acknowledged.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>

#include <KMS.h>

#include "server/ServiceClient.h"
#include "server/ServiceSandbox.h"

namespace Facets = Ardentis::Vaultrest::DL::KMSFacetsV1;

namespace {

constexpr long kActive = 1, kInactive = 2, kPrelive = 4;

// The facets of one client, fetched before the threads share them.
struct Facet {
  Facets::KMSQueryableFacet_ptr query;
  Facets::KMSModifiableFacet_ptr modify;
  explicit Facet(KmsClient& client) : query(client.query()), modify(client.modify()) {}
};

// A thread's group as acknowledged: key name to (state, description).
using GroupModel = std::map<std::string, std::pair<long, std::string>>;

// Failures, counts, and the acknowledged updates of the shared key.
struct Shared {
  std::mutex mutex;
  std::vector<std::string> failures;
  std::atomic<long> operations{0};
  long successes = 0, topRev = 0;
  std::string topDescription;
  std::string sharedTag;

  void fail(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    failures.push_back(what);
  }
};

class LoadThread {
 public:
  LoadThread(int index, const Facet& facet, Shared& shared)
      : m_index(index), m_facet(facet), m_shared(shared), m_random(index * 7919u + 1u) {}

  void run(std::chrono::steady_clock::time_point until) {
    group = "t" + std::to_string(m_index);
    if (!attempt("group create", [&] {
          Facets::KeyGroupRecord_var record = m_facet.modify->getNewKeyGroup();
          record->name = group.c_str();
          record->type = 1 + m_index % 4;
          groupTag =
              Facets::KeyGroupRecord_var(m_facet.modify->createKeyGroup(record.in()))->tag.in();
        }))
      return;
    while (std::chrono::steady_clock::now() < until) {
      const int choice = static_cast<int>(m_random() % 100);
      const std::string any = pick(false), prelive = pick(true);
      const std::string text = "d" + std::to_string(m_next++);
      if (choice < 30 && !any.empty()) {
        attempt("read", [&] {
          Facets::KeyRecord_var record = byName(any);
          if (record->state != model.at(any).first ||
              model.at(any).second != record->description.in())
            m_shared.fail("read: " + any + " differs from what was acknowledged");
          if ((record->state == kActive || record->state == kInactive) &&
              Facets::KeyRecord_var(m_facet.query->getKey(record->tag.in()))->encKey.length() == 0)
            m_shared.fail("getKey: no key");
        });
      } else if (choice >= 30 && choice < 45 && model.size() < 24) {
        attempt("create", [&] {
          Facets::KeyRecord_var record = m_facet.modify->getNewKey();
          record->name = text.c_str();
          record->keyGroup = groupTag.c_str();
          record->state = kPrelive;
          record->kpkType = 1;
          record->description = "new";
          delete m_facet.modify->createKey("", record.in());
          model[text] = {kPrelive, "new"};
        });
      } else if (choice >= 45 && choice < 60 && !any.empty()) {
        attempt("describe", [&] {  // read-modify-write
          Facets::KeyRecord_var record = byName(any);
          record->description = text.c_str();
          delete m_facet.modify->updateKey(record.in());
          model[any].second = text;
        });
      } else if (choice >= 60 && choice < 70 && !prelive.empty()) {
        attempt("delete", [&] {
          m_facet.modify->deleteKey(byName(prelive)->tag.in());
          model.erase(prelive);
        });
      } else if (choice >= 70 && choice < 75 && !prelive.empty() && count(kInactive) < 8) {
        // The group's active key before it is demoted by the service.
        attempt("activate", [&] {
          Facets::KeyRecord_var record = byName(prelive);
          record->state = kActive;
          delete m_facet.modify->updateKey(record.in());
          for (auto& entry : model) {
            entry.second.first = entry.second.first == kActive ? kInactive : entry.second.first;
          }
          model[prelive].first = kActive;
        });
      } else if (choice >= 75) {
        updateShared();
      }
    }
  }

  std::string group, groupTag;
  GroupModel model;

 private:
  bool attempt(const char* what, const std::function<void()>& call) {
    const std::string failed = ServiceClient::outcome(call);
    if (!failed.empty())
      m_shared.fail(what + (": " + failed));
    m_shared.operations += failed.empty() ? 1 : 0;
    return failed.empty();
  }

  Facets::KeyRecord_var byName(const std::string& name) {
    return m_facet.query->getKeyRecordByName(groupTag.c_str(), name.c_str());
  }

  std::string pick(bool preliveOnly) {
    std::vector<std::string> names;
    for (const auto& entry : model) {
      if (!preliveOnly || entry.second.first == kPrelive)
        names.push_back(entry.first);
    }
    return names.empty() ? std::string() : names[m_random() % names.size()];
  }

  long count(long state) const {
    return std::count_if(model.begin(), model.end(),
                         [&](auto& e) { return e.second.first == state; });
  }
  // All threads at once: a stale read is refused, and that is all.
  void updateShared() {
    const std::string text = "t" + std::to_string(m_index) + "-" + std::to_string(m_next++);
    Facets::KeyRecord_var updated;
    const std::string failed = ServiceClient::outcome([&] {
      Facets::KeyRecord_var record = m_facet.query->getKeyRecord(m_shared.sharedTag.c_str());
      record->description = text.c_str();
      updated = m_facet.modify->updateKey(record.in());
    });
    if (!failed.empty() && failed != "ServiceException 1228")
      m_shared.fail("shared: " + failed);
    if (!failed.empty())
      return;
    ++m_shared.operations;
    std::lock_guard<std::mutex> lock(m_shared.mutex);
    ++m_shared.successes;
    if (updated->rev > m_shared.topRev) {
      m_shared.topRev = updated->rev;
      m_shared.topDescription = text;
    }
  }

  const int m_index;
  Facet m_facet;
  Shared& m_shared;
  std::mt19937 m_random;
  int m_next = 0;
};

// Every thread's group and the shared key against the service.
void expectStoreAsAcknowledged(const Facet& facet,
                               const std::vector<std::unique_ptr<LoadThread>>& threads,
                               const Shared& shared) {
  long long keys = 1;  // the shared key
  for (const auto& thread : threads) {
    Facets::KeyRecordSeq_var records =
        facet.query->getAllKeyRecordsInGroup(thread->groupTag.c_str());
    GroupModel stored;
    for (CORBA::ULong i = 0; i < records->length(); ++i) {
      stored[records[i].name.in()] = {records[i].state, records[i].description.in()};
    }
    EXPECT_EQ(stored, thread->model) << thread->group;
    keys += static_cast<long long>(stored.size());
  }
  const Facets::KeyStoreStats stats = facet.query->getKeyStoreStats();
  EXPECT_EQ(stats.numKeys, keys);
  EXPECT_EQ(stats.numKeyGroups, static_cast<CORBA::LongLong>(threads.size() + 1));
  Facets::KeyRecord_var hot = facet.query->getKeyRecord(shared.sharedTag.c_str());
  EXPECT_EQ(hot->rev, 1 + shared.successes);
  EXPECT_EQ(hot->description.in(), shared.topDescription);
}

void runLoad(ServiceSandbox& service) {
  ASSERT_TRUE(service.makeStore());
  ASSERT_TRUE(service.start()) << service.stderrText();
  const char* configured = std::getenv("VRKMS_LOAD_SECONDS");
  const int seconds = configured != nullptr ? std::atoi(configured) : 5;

  Shared shared;
  auto client = std::make_unique<KmsClient>(service.reference());
  const Facet facet(*client);
  service.json({"group", "create", "shared", "--cipher", "AES256"});
  shared.sharedTag = CtlOutput::jsonField(
      service.json({"key", "create", "shared", "hot", "--state", "prelive"}), "tag");

  std::vector<std::unique_ptr<LoadThread>> threads;
  std::vector<std::thread> running;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  for (int i = 0; i < 32; ++i) {
    threads.push_back(std::make_unique<LoadThread>(i, facet, shared));
    running.emplace_back([thread = threads.back().get(), until] { thread->run(until); });
  }
  for (std::thread& t : running) {
    t.join();
  }
  EXPECT_TRUE(shared.failures.empty())
      << shared.failures.size() << " failures, the first " << shared.failures.front();
  EXPECT_GT(shared.successes, 0);
  std::cout << "[ load     ] " << shared.operations << " operations (" << shared.successes
            << " changes of the shared key), in " << seconds << " s" << std::endl;

  expectStoreAsAcknowledged(facet, threads, shared);
  // What was acknowledged is on disk.
  client.reset();
  EXPECT_EQ(service.terminate().second, 0);
  ASSERT_TRUE(service.start()) << service.stderrText();
  client = std::make_unique<KmsClient>(service.reference());
  expectStoreAsAcknowledged(Facet(*client), threads, shared);
}

TEST(VrkmsLoad, ThirtyTwoClientsMixReadsAndChangesAndTheStoreHoldsWhatWasAcknowledged) {
  ServiceSandbox service(4);
  const std::string failed = ServiceClient::outcome([&] { runLoad(service); });
  EXPECT_EQ(failed, "") << service.stderrText();
}

}  // namespace

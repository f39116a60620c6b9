// What a client knows of the store while the service may die under it: the
// groups and keys by name, the changes a client sends, and how each changes
// the store as the service applies it (the one-active-key rule included).
//
// A change whose reply came back is applied with the facts of the reply
// (tag, times). A change whose reply was lost may or may not be on disk:
// applying it without a reply leaves the tag and times unknown, and
// `matches` then accepts any value there. After a restart the store read
// back must match either the model before that change or the model after
// it, and nothing else.
#pragma once

#include <map>
#include <sstream>
#include <string>

namespace KillModel {

constexpr long kActive = 1;
constexpr long kInactive = 2;
constexpr long kDeprecated = 3;
constexpr long kPrelive = 4;
constexpr long kTerminated = 5;

// -1 for a time, "" for a tag: not known.
struct KeyFacts {
  std::string tag;
  long state = 0;
  std::string description;
  long rev = 0;
  long long createTime = -1;
  long long updateTime = -1;
};

struct GroupFacts {
  std::string tag;
  long type = 0;
  std::string description;
  long rev = 0;
  long long createTime = -1;
  long long updateTime = -1;
  std::map<std::string, KeyFacts> keys;  // by name

  // The name of the group's active key, or "".
  std::string activeKey() const {
    for (const auto& [name, key] : keys) {
      if (key.state == kActive) {
        return name;
      }
    }
    return std::string();
  }
};

// The store: groups by name.
typedef std::map<std::string, GroupFacts> Store;

// One change as sent. For UpdateKey the key `key` of group `group` becomes
// `newName` in `newGroup` with `state` and `description`; for UpdateGroup
// the group `group` becomes `newName` with `description`.
struct Change {
  enum Kind { AddGroup, UpdateGroup, DeleteGroup, AddKey, UpdateKey, DeleteKey };
  Kind kind = AddGroup;
  std::string group;
  std::string key;
  std::string newGroup;
  std::string newName;
  long state = 0;
  long type = 0;
  std::string description;
  bool force = false;

  std::string text() const {
    static const char* const kNames[] = {"add group", "update group", "delete group",
                                         "add key",   "update key",   "delete key"};
    std::ostringstream out;
    out << kNames[kind] << " " << group;
    if (!key.empty()) {
      out << "/" << key;
    }
    if (kind == UpdateKey || kind == UpdateGroup) {
      out << " -> " << (kind == UpdateKey ? newGroup + "/" : std::string()) << newName;
    }
    if (kind == AddKey || kind == UpdateKey) {
      out << " state " << state;
    }
    return out.str();
  }
};

// The facts of the service's reply to a change; all unknown when it was
// lost.
struct Reply {
  std::string tag;
  long long createTime = -1;
  long long updateTime = -1;
};

// Demotes the active key of `group`, if any, at `now`, as the service does
// when another key becomes the active one.
inline void demoteActive(GroupFacts& group, long long now) {
  const std::string active = group.activeKey();
  if (!active.empty()) {
    KeyFacts& key = group.keys[active];
    key.state = kInactive;
    key.rev += 1;
    key.updateTime = now;
  }
}

// `store` with `change` applied, the reply's facts filled in. The caller
// chose a change the service accepts.
inline Store applied(Store store, const Change& change, const Reply& reply) {
  switch (change.kind) {
    case Change::AddGroup: {
      GroupFacts& group = store[change.group];
      group.tag = reply.tag;
      group.type = change.type;
      group.description = change.description;
      group.rev = 1;
      group.createTime = reply.createTime;
      group.updateTime = reply.updateTime;
      break;
    }
    case Change::UpdateGroup: {
      GroupFacts group = store.at(change.group);
      store.erase(change.group);
      group.description = change.description;
      group.rev += 1;
      group.updateTime = reply.updateTime;
      store[change.newName] = group;
      break;
    }
    case Change::DeleteGroup:
      store.erase(change.group);
      break;
    case Change::AddKey: {
      GroupFacts& group = store.at(change.group);
      if (change.state == kActive) {
        demoteActive(group, reply.updateTime);
      }
      KeyFacts& key = group.keys[change.key];
      key.tag = reply.tag;
      key.state = change.state;
      key.description = change.description;
      key.rev = 1;
      key.createTime = reply.createTime;
      key.updateTime = reply.updateTime;
      break;
    }
    case Change::UpdateKey: {
      GroupFacts& from = store.at(change.group);
      KeyFacts key = from.keys.at(change.key);
      from.keys.erase(change.key);
      GroupFacts& to = store.at(change.newGroup);
      if ((change.newGroup != change.group || change.state != key.state) &&
          change.state == kActive) {
        demoteActive(to, reply.updateTime);
      }
      key.state = change.state;
      key.description = change.description;
      key.rev += 1;
      key.updateTime = reply.updateTime;
      to.keys[change.newName] = key;
      break;
    }
    case Change::DeleteKey:
      store.at(change.group).keys.erase(change.key);
      break;
  }
  return store;
}

// Whether `actual`, read from the service, is `expected`, where unknown
// facts of `expected` match anything. `why` tells the first difference.
inline bool matches(const Store& expected, const Store& actual, std::string* why) {
  const auto differ = [why](const std::string& what) {
    *why = what;
    return false;
  };
  const auto sameTime = [](long long wanted, long long got) { return wanted < 0 || wanted == got; };
  const auto sameTag = [](const std::string& wanted, const std::string& got) {
    return wanted.empty() || wanted == got;
  };
  for (const auto& [name, group] : actual) {
    if (expected.count(name) == 0) {
      return differ("group " + name + " should not be there");
    }
  }
  for (const auto& [name, wanted] : expected) {
    const auto found = actual.find(name);
    if (found == actual.end()) {
      return differ("group " + name + " is missing");
    }
    const GroupFacts& got = found->second;
    if (!sameTag(wanted.tag, got.tag) || wanted.type != got.type ||
        wanted.description != got.description || wanted.rev != got.rev ||
        !sameTime(wanted.createTime, got.createTime) ||
        !sameTime(wanted.updateTime, got.updateTime)) {
      return differ("group " + name + " differs: rev " + std::to_string(got.rev) + " for " +
                    std::to_string(wanted.rev) + ", description \"" + got.description +
                    "\" for \"" + wanted.description + "\"");
    }
    for (const auto& [keyName, key] : got.keys) {
      if (wanted.keys.count(keyName) == 0) {
        return differ("key " + name + "/" + keyName + " should not be there");
      }
    }
    for (const auto& [keyName, key] : wanted.keys) {
      const auto it = got.keys.find(keyName);
      if (it == got.keys.end()) {
        return differ("key " + name + "/" + keyName + " is missing");
      }
      const KeyFacts& have = it->second;
      if (!sameTag(key.tag, have.tag) || key.state != have.state ||
          key.description != have.description || key.rev != have.rev ||
          !sameTime(key.createTime, have.createTime) ||
          !sameTime(key.updateTime, have.updateTime)) {
        return differ("key " + name + "/" + keyName + " differs: state " +
                      std::to_string(have.state) + " for " + std::to_string(key.state) + ", rev " +
                      std::to_string(have.rev) + " for " + std::to_string(key.rev) +
                      ", description \"" + have.description + "\" for \"" + key.description + "\"");
      }
    }
  }
  return true;
}

}  // namespace KillModel

// The records that the request fuzzer and its replay test keep in the
// service's store, so that requests can name real groups and keys: two
// groups and three keys, made through the facets' client stubs, and the
// markers (GiopFuzzInput.h) that stand for their tags, times and revisions.
//
//   group 0  "fuzz-group-0", AES-256; key 0 "fuzz-key-0" active, key 1
//            "fuzz-key-1" pre-live (deletable)
//   group 1  "fuzz-group-1", Blowfish; key 2 "fuzz-key-2" inactive, recovered
//            from a passphrase under a known tag
//
// Not thread-safe; the facet references are duplicated and released here.
// reset and refresh throw what the stubs throw (CORBA exceptions, and
// ServiceException from reset).
#pragma once

#include <KMS.h>

#include <cstdint>
#include <string>

#include "fuzz/giop/GiopFuzzInput.h"

namespace giopfuzz {

class Baseline {
 public:
  typedef Ardentis::Vaultrest::DL::KMSFacetsV1::KMSControlFacet Control;
  typedef Ardentis::Vaultrest::DL::KMSFacetsV1::KMSModifiableFacet Modifiable;
  typedef Ardentis::Vaultrest::DL::KMSFacetsV1::KMSQueryableFacet Query;
  typedef Ardentis::Vaultrest::DL::KMSFacetsV1::KeyGroupRecord GroupRecord;
  typedef Ardentis::Vaultrest::DL::KMSFacetsV1::KeyRecord KeyRecord;

  static constexpr int kGroups = 2;
  static constexpr int kKeys = 3;

  Baseline(Control::_ptr_type control, Modifiable::_ptr_type modify, Query::_ptr_type query)
      : m_control(Control::_duplicate(control)),
        m_modify(Modifiable::_duplicate(modify)),
        m_query(Query::_duplicate(query)) {}

  // Ends a quiesce, deletes every group with its keys, and makes the
  // records anew.
  void reset() {
    if (m_control->isQuiesced() != 0) {
      m_control->unquiesce(true);
    }
    Ardentis::Vaultrest::DL::KMSFacetsV1::KeyGroupRecordSeq_var all =
        m_query->getAllKeyGroupRecords();
    for (CORBA::ULong i = 0; i < all->length(); ++i) {
      m_modify->deleteKeyGroup(all[i].tag, true);
    }
    const int ciphers[kGroups] = {3, 4};
    for (int g = 0; g < kGroups; ++g) {
      GroupRecord_var blank = m_modify->getNewKeyGroup();
      blank->name = ("fuzz-group-" + std::to_string(g)).c_str();
      blank->type = ciphers[g];
      blank->description = "kept by the request fuzzer";
      m_groups[g] = m_modify->createKeyGroup(blank.in());
    }
    const int groupOf[kKeys] = {0, 0, 1};
    const int states[kKeys] = {1, 4, 2};  // active, pre-live, inactive
    for (int k = 0; k < kKeys; ++k) {
      KeyRecord_var blank = m_modify->getNewKey();
      blank->name = ("fuzz-key-" + std::to_string(k)).c_str();
      blank->keyGroup = m_groups[groupOf[k]]->tag;
      blank->state = states[k];
      blank->kpkType = 1;
      if (states[k] == 2) {
        blank->tag = (std::string(62, 'f') + "0" + std::to_string(k)).c_str();
        m_keys[k] = m_modify->recoverKey("fuzz passphrase", blank.in());
      } else {
        m_keys[k] = m_modify->createKey("", blank.in());
      }
    }
    remark();
  }

  // Reads the records again (their times and revisions change with every
  // update). False when one is gone or has moved, and then the markers are
  // those of before.
  bool refresh() {
    try {
      GroupRecord_var groups[kGroups];
      KeyRecord_var keys[kKeys];
      for (int g = 0; g < kGroups; ++g) {
        groups[g] = m_query->getKeyGroupRecord(m_groups[g]->tag);
      }
      for (int k = 0; k < kKeys; ++k) {
        keys[k] = m_query->getKeyRecord(m_keys[k]->tag);
        if (std::string(keys[k]->keyGroup.in()) != m_keys[k]->keyGroup.in()) {
          return false;
        }
      }
      for (int g = 0; g < kGroups; ++g) {
        m_groups[g] = groups[g]._retn();
      }
      for (int k = 0; k < kKeys; ++k) {
        m_keys[k] = keys[k]._retn();
      }
    } catch (const Ardentis::Vaultrest::TL::Framework::ServiceException&) {
      return false;
    }
    remark();
    return true;
  }

  const Markers& markers() const { return m_markers; }

  // The exception's name, and a ServiceException's error code.
  static std::string describe(const CORBA::Exception& e) {
    std::string text = e._name();
    const auto* service = Ardentis::Vaultrest::TL::Framework::ServiceException::_downcast(&e);
    if (service != nullptr) {
      const auto* details =
          Ardentis::Vaultrest::TL::Framework::ErrorCodeExceptionDetails::_downcast(
              service->details.in());
      if (details != nullptr) {
        text += " " + std::to_string(details->errorCode());
      }
    }
    return text;
  }

 private:
  typedef Ardentis::Vaultrest::DL::KMSFacetsV1::KeyGroupRecord_var GroupRecord_var;
  typedef Ardentis::Vaultrest::DL::KMSFacetsV1::KeyRecord_var KeyRecord_var;

  static Marker number(const std::string& mark, uint64_t value) {
    Marker marker{mark, std::string(), std::string()};
    for (size_t i = 0; i < mark.size(); ++i) {
      marker.little.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
      marker.big.push_back(static_cast<char>((value >> (8 * (mark.size() - 1 - i))) & 0xff));
    }
    return marker;
  }
  static Marker text(const std::string& mark, const std::string& value) {
    return Marker{mark, value, value};
  }
  static std::string rawTag(const std::string& hex) {
    std::string raw;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
      raw.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return raw;
  }

  void remark() {
    m_markers.clear();
    for (int g = 0; g < kGroups; ++g) {
      const GroupRecord& group = m_groups[g].in();
      m_markers.push_back(text(groupTagMarker(g), group.tag.in()));
      m_markers.push_back(number(timeMarker('G', 'c', g), group.createTime));
      m_markers.push_back(number(timeMarker('G', 'u', g), group.updateTime));
      m_markers.push_back(number(revisionMarker('G', g), static_cast<uint32_t>(group.rev)));
    }
    for (int k = 0; k < kKeys; ++k) {
      const KeyRecord& key = m_keys[k].in();
      m_markers.push_back(text(keyTagMarker(k), key.tag.in()));
      m_markers.push_back(text(kadMarker(k), rawTag(key.tag.in()).substr(0, 16)));
      m_markers.push_back(number(timeMarker('K', 'c', k), key.createTime));
      m_markers.push_back(number(timeMarker('K', 'u', k), key.updateTime));
      m_markers.push_back(number(revisionMarker('K', k), static_cast<uint32_t>(key.rev)));
    }
  }

  Control::_var_type m_control;
  Modifiable::_var_type m_modify;
  Query::_var_type m_query;
  GroupRecord_var m_groups[kGroups];
  KeyRecord_var m_keys[kKeys];
  Markers m_markers;
};

}  // namespace giopfuzz

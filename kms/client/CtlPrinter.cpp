#include "kms/client/CtlPrinter.h"

#include <ctime>
#include <iomanip>
#include <sstream>
#include <vector>

#include "kms/client/JsonWriter.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace Facets = ::Ardentis::Vaultrest::DL::KMSFacetsV1;
namespace Fw = ::Ardentis::Vaultrest::TL::Framework;

namespace {

constexpr long long kGregorianOffsetSeconds = 12219292800LL;
constexpr long long kTicksPerSecond = 10000000LL;

std::string isoTime(long long seconds) {
  const time_t when = static_cast<time_t>(seconds);
  std::tm parts{};
  if (gmtime_r(&when, &parts) == nullptr) {
    return std::to_string(seconds);
  }
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

void jsonAttributes(JsonWriter& json, const Facets::AttrElemSeq& attributes) {
  json.key("attributes");
  json.beginObject();
  for (CORBA::ULong i = 0; i < attributes.length(); ++i) {
    json.key(attributes[i].name.in());
    json.value(attributes[i].value.in());
  }
  json.endObject();
}

// Rows of text in columns as wide as their widest cell; the last column is
// not padded.
void printTable(std::ostream& out, const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()), 0);
    for (size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      out << row[i];
      if (i + 1 < row.size()) {
        out << std::string(widths[i] - row[i].size() + 2, ' ');
      }
    }
    out << "\n";
  }
}

void textLine(std::ostream& out, const char* label, const std::string& value) {
  out << std::left << std::setw(13) << label << value << "\n";
}

}  // namespace

std::string CtlPrinter::stateName(long state) {
  static const char* const kNames[] = {"KEY_INVALID",    "KEY_ACTIVE",  "KEY_INACTIVE",
                                       "KEY_DEPRECATED", "KEY_PRELIVE", "KEY_TERMINATED"};
  return state >= 0 && state <= 5 ? kNames[state] : "* UNKNOWN STATE *";
}

std::string CtlPrinter::cipherName(long type) {
  static const char* const kNames[] = {"CT_INVALID_CBC", "CT_AES128_CBC", "CT_AES192_CBC",
                                       "CT_AES256_CBC", "CT_BLOW_CBC"};
  return type >= 0 && type <= 4 ? kNames[type] : "* UNKNOWN CIPHERTYPE *";
}

std::string CtlPrinter::kpkTypeName(long type) {
  return type == 0 ? "KPK_INVALID" : type == 1 ? "KPK_LOCAL" : "* UNKNOWN KPKTYPE *";
}

long long CtlPrinter::toSeconds(long long ticks) {
  return ticks / kTicksPerSecond - kGregorianOffsetSeconds;
}

std::string CtlPrinter::hex(const Fw::octetSeq& octets) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(octets.length() * 2);
  for (CORBA::ULong i = 0; i < octets.length(); ++i) {
    out += kDigits[octets[i] >> 4];
    out += kDigits[octets[i] & 0x0f];
  }
  return out;
}

void CtlPrinter::jsonKey(JsonWriter& json, const Facets::KeyRecord& record) {
  json.beginObject();
  json.key("tag");
  json.value(record.tag.in());
  json.key("name");
  json.value(record.name.in());
  json.key("keyGroup");
  json.value(record.keyGroup.in());
  json.key("state");
  json.value(stateName(record.state));
  json.key("description");
  json.value(record.description.in());
  json.key("rev");
  json.value(static_cast<long long>(record.rev));
  json.key("createTime");
  json.value(toSeconds(record.createTime));
  json.key("updateTime");
  json.value(toSeconds(record.updateTime));
  json.key("kpkType");
  json.value(kpkTypeName(record.kpkType));
  json.key("kpkTag");
  json.value(record.kpkTag.in());
  if (record.encKey.length() > 0) {
    json.key("key");
    json.value(hex(record.encKey));
  }
  jsonAttributes(json, record.attributeList);
  json.endObject();
}

void CtlPrinter::jsonGroup(JsonWriter& json, const Facets::KeyGroupRecord& record) {
  json.beginObject();
  json.key("tag");
  json.value(record.tag.in());
  json.key("name");
  json.value(record.name.in());
  json.key("cipherType");
  json.value(cipherName(record.type));
  json.key("description");
  json.value(record.description.in());
  json.key("rev");
  json.value(static_cast<long long>(record.rev));
  json.key("createTime");
  json.value(toSeconds(record.createTime));
  json.key("updateTime");
  json.value(toSeconds(record.updateTime));
  json.key("hasActiveKey");
  json.value(static_cast<bool>(record.stat.hasActiveKey));
  json.key("numKeys");
  json.value(static_cast<long long>(record.stat.numKeys));
  jsonAttributes(json, record.attributeList);
  json.endObject();
}

void CtlPrinter::textKey(const Facets::KeyRecord& record) {
  textLine(m_out, "name:", record.name.in());
  textLine(m_out, "tag:", record.tag.in());
  textLine(m_out, "group:", record.keyGroup.in());
  textLine(m_out, "state:", stateName(record.state));
  textLine(m_out, "description:", record.description.in());
  textLine(m_out, "revision:", std::to_string(record.rev));
  textLine(m_out, "created:", isoTime(toSeconds(record.createTime)));
  textLine(m_out, "updated:", isoTime(toSeconds(record.updateTime)));
  textLine(m_out, "kpk type:", kpkTypeName(record.kpkType));
  if (record.encKey.length() > 0) {
    textLine(m_out, "key:", hex(record.encKey));
  }
  for (CORBA::ULong i = 0; i < record.attributeList.length(); ++i) {
    textLine(m_out, "attribute:",
             std::string(record.attributeList[i].name.in()) + " = " +
                 record.attributeList[i].value.in());
  }
}

void CtlPrinter::key(const Facets::KeyRecord& record) {
  if (m_json) {
    JsonWriter json(m_out);
    jsonKey(json, record);
    m_out << "\n";
    return;
  }
  textKey(record);
}

void CtlPrinter::keys(const Facets::KeyRecordSeq& records) {
  if (m_json) {
    JsonWriter json(m_out);
    json.beginArray();
    for (CORBA::ULong i = 0; i < records.length(); ++i) {
      jsonKey(json, records[i]);
    }
    json.endArray();
    m_out << "\n";
    return;
  }
  std::vector<std::vector<std::string>> rows{{"NAME", "STATE", "REV", "TAG"}};
  for (CORBA::ULong i = 0; i < records.length(); ++i) {
    rows.push_back({records[i].name.in(), stateName(records[i].state),
                    std::to_string(records[i].rev), records[i].tag.in()});
  }
  printTable(m_out, rows);
}

void CtlPrinter::group(const Facets::KeyGroupRecord& record) {
  if (m_json) {
    JsonWriter json(m_out);
    jsonGroup(json, record);
    m_out << "\n";
    return;
  }
  textLine(m_out, "name:", record.name.in());
  textLine(m_out, "tag:", record.tag.in());
  textLine(m_out, "cipher:", cipherName(record.type));
  textLine(m_out, "description:", record.description.in());
  textLine(m_out, "revision:", std::to_string(record.rev));
  textLine(m_out, "created:", isoTime(toSeconds(record.createTime)));
  textLine(m_out, "updated:", isoTime(toSeconds(record.updateTime)));
  textLine(m_out, "keys:", std::to_string(record.stat.numKeys));
  textLine(m_out, "active key:", record.stat.hasActiveKey ? "yes" : "no");
  for (CORBA::ULong i = 0; i < record.attributeList.length(); ++i) {
    textLine(m_out, "attribute:",
             std::string(record.attributeList[i].name.in()) + " = " +
                 record.attributeList[i].value.in());
  }
}

void CtlPrinter::groups(const Facets::KeyGroupRecordSeq& records) {
  if (m_json) {
    JsonWriter json(m_out);
    json.beginArray();
    for (CORBA::ULong i = 0; i < records.length(); ++i) {
      jsonGroup(json, records[i]);
    }
    json.endArray();
    m_out << "\n";
    return;
  }
  std::vector<std::vector<std::string>> rows{{"NAME", "CIPHER", "KEYS", "ACTIVE", "TAG"}};
  for (CORBA::ULong i = 0; i < records.length(); ++i) {
    rows.push_back({records[i].name.in(), cipherName(records[i].type),
                    std::to_string(records[i].stat.numKeys),
                    records[i].stat.hasActiveKey ? "yes" : "no", records[i].tag.in()});
  }
  printTable(m_out, rows);
}

void CtlPrinter::status(const CtlStatus& status) {
  if (m_json) {
    JsonWriter json(m_out);
    json.beginObject();
    json.key("quiesceCount");
    json.value(status.quiesceCount);
    json.key("numKeyGroups");
    json.value(status.numKeyGroups);
    json.key("numKeys");
    json.value(status.numKeys);
    json.key("hmkId");
    json.value(status.hmkId);
    json.key("kpkId");
    json.value(status.kpkId);
    json.endObject();
    m_out << "\n";
    return;
  }
  textLine(m_out, "quiesced:", std::to_string(status.quiesceCount));
  textLine(m_out, "key groups:", std::to_string(status.numKeyGroups));
  textLine(m_out, "keys:", std::to_string(status.numKeys));
  textLine(m_out, "HMK id:", status.hmkId);
  textLine(m_out, "KPK id:", status.kpkId);
}

void CtlPrinter::quiesceCount(long long count) {
  if (m_json) {
    JsonWriter json(m_out);
    json.beginObject();
    json.key("quiesceCount");
    json.value(count);
    json.endObject();
    m_out << "\n";
    return;
  }
  textLine(m_out, "quiesced:", std::to_string(count));
}

void CtlPrinter::done(const std::string& text) {
  if (m_json) {
    m_out << "{\"ok\":true}\n";
    return;
  }
  m_out << text << "\n";
}

void CtlPrinter::kad(long result, const Fw::octetSeq& kad, const Facets::KeyRecord& record) {
  if (m_json) {
    JsonWriter json(m_out);
    json.beginObject();
    json.key("result");
    json.value(static_cast<long long>(result));
    json.key("unique");
    json.value(result == 1);
    json.key("kad");
    json.value(hex(kad));
    json.key("record");
    jsonKey(json, record);
    json.endObject();
    m_out << "\n";
    return;
  }
  textLine(m_out, "kad:", hex(kad) + (result == 1 ? " (unique)" : " (shared with other keys)"));
  textKey(record);
}

void CtlPrinter::kadMatches(long result, const Facets::KeyRecordSeq& records) {
  if (m_json) {
    JsonWriter json(m_out);
    json.beginObject();
    json.key("result");
    json.value(static_cast<long long>(result));
    json.key("complete");
    json.value(result == 3);
    json.key("records");
    json.beginArray();
    for (CORBA::ULong i = 0; i < records.length(); ++i) {
      jsonKey(json, records[i]);
    }
    json.endArray();
    json.endObject();
    m_out << "\n";
    return;
  }
  m_out << records.length() << (records.length() == 1 ? " key" : " keys")
        << (result == 3 ? "" : " (keys that cannot be used were left out)") << "\n";
  for (CORBA::ULong i = 0; i < records.length(); ++i) {
    m_out << "\n";
    textKey(records[i]);
  }
}

void CtlPrinter::error(std::ostream& out, bool json, const std::string& code, bool numeric,
                       const std::string& text) {
  if (json) {
    out << "{\"error\":" << (numeric ? code : JsonWriter::quote(code))
        << ",\"message\":" << JsonWriter::quote(text) << "}\n";
    return;
  }
  out << "error " << code << ": " << text << "\n";
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest

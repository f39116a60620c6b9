#include "kms/client/CtlPrinter.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <vector>

#include "kms/client/CtlOpMessages.h"
#include "kms/client/JsonWriter.h"
#include "kms/platform/CrvnLis.h"

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

// One field of something printed: its JSON member and its text label (null
// for a field that only JSON shows). Times are seconds since the Epoch.
struct Field {
  enum Kind { kText, kNumber, kFlag, kTime };
  const char* member;
  const char* label;
  Kind kind;
  std::string text;
  long long number;
};

Field textField(const char* member, const char* label, const std::string& text) {
  return Field{member, label, Field::kText, text, 0};
}

Field numberField(const char* member, const char* label, long long number,
                  Field::Kind kind = Field::kNumber) {
  return Field{member, label, kind, std::string(), number};
}

// A record, a status or a result: its fields in order and the record's
// attributes, if it has any.
struct View {
  std::vector<Field> fields;
  const Facets::AttrElemSeq* attributes = nullptr;
};

// Every record goes through these two, so a key or a group looks the same
// wherever it is printed.
View keyView(const Facets::KeyRecord& record) {
  View view;
  view.fields = {
      textField("name", "name:", record.name.in()),
      textField("tag", "tag:", record.tag.in()),
      textField("keyGroup", "group:", record.keyGroup.in()),
      textField("state", "state:", CtlPrinter::stateName(record.state)),
      textField("description", "description:", record.description.in()),
      numberField("rev", "revision:", record.rev),
      numberField("createTime", "created:", CtlPrinter::toSeconds(record.createTime), Field::kTime),
      numberField("updateTime", "updated:", CtlPrinter::toSeconds(record.updateTime), Field::kTime),
      textField("kpkType", "kpk type:", CtlPrinter::kpkTypeName(record.kpkType)),
      textField("kpkTag", nullptr, record.kpkTag.in()),
  };
  if (record.encKey.length() > 0) {
    view.fields.push_back(textField("key", "key:", CtlPrinter::hex(record.encKey)));
  }
  view.attributes = &record.attributeList;
  return view;
}

View groupView(const Facets::KeyGroupRecord& record) {
  View view;
  view.fields = {
      textField("name", "name:", record.name.in()),
      textField("tag", "tag:", record.tag.in()),
      textField("cipherType", "cipher:", CtlPrinter::cipherName(record.type)),
      textField("description", "description:", record.description.in()),
      numberField("rev", "revision:", record.rev),
      numberField("createTime", "created:", CtlPrinter::toSeconds(record.createTime), Field::kTime),
      numberField("updateTime", "updated:", CtlPrinter::toSeconds(record.updateTime), Field::kTime),
      numberField("numKeys", "keys:", record.stat.numKeys),
      numberField("hasActiveKey", "active key:", record.stat.hasActiveKey ? 1 : 0, Field::kFlag),
  };
  view.attributes = &record.attributeList;
  return view;
}

// The field's value as text shows it.
std::string cell(const Field& field) {
  switch (field.kind) {
    case Field::kText:
      return field.text;
    case Field::kFlag:
      return field.number != 0 ? "yes" : "no";
    case Field::kTime:
      return isoTime(field.number);
    case Field::kNumber:
      break;
  }
  return std::to_string(field.number);
}

void jsonView(JsonWriter& json, const View& view) {
  json.beginObject();
  for (const Field& field : view.fields) {
    json.key(field.member);
    switch (field.kind) {
      case Field::kText:
        json.value(field.text);
        break;
      case Field::kFlag:
        json.value(field.number != 0);
        break;
      case Field::kNumber:
      case Field::kTime:
        json.value(field.number);
        break;
    }
  }
  if (view.attributes != nullptr) {
    json.key("attributes");
    json.beginObject();
    for (CORBA::ULong i = 0; i < view.attributes->length(); ++i) {
      json.key((*view.attributes)[i].name.in());
      json.value((*view.attributes)[i].value.in());
    }
    json.endObject();
  }
  json.endObject();
}

void textLine(std::ostream& out, const char* label, const std::string& value) {
  out << std::left << std::setw(13) << label << value << "\n";
}

void textView(std::ostream& out, const View& view) {
  for (const Field& field : view.fields) {
    if (field.label != nullptr) {
      textLine(out, field.label, cell(field));
    }
  }
  if (view.attributes != nullptr) {
    for (CORBA::ULong i = 0; i < view.attributes->length(); ++i) {
      textLine(
          out, "attribute:",
          std::string((*view.attributes)[i].name.in()) + " = " + (*view.attributes)[i].value.in());
    }
  }
}

// One record or result on its own: a JSON document, or text lines.
void printView(std::ostream& out, bool json, const View& view) {
  if (json) {
    JsonWriter writer(out);
    jsonView(writer, view);
    out << "\n";
    return;
  }
  textView(out, view);
}

// A column of a listing: its heading and the member it shows.
struct Column {
  const char* heading;
  const char* member;
};

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

// A list of records: a JSON array, or a table of the chosen columns.
void printList(std::ostream& out, bool json, const std::vector<View>& views,
               const std::vector<Column>& columns) {
  if (json) {
    JsonWriter writer(out);
    writer.beginArray();
    for (const View& view : views) {
      jsonView(writer, view);
    }
    writer.endArray();
    out << "\n";
    return;
  }
  std::vector<std::vector<std::string>> rows(1);
  for (const Column& column : columns) {
    rows[0].push_back(column.heading);
  }
  for (const View& view : views) {
    std::vector<std::string> row;
    for (const Column& column : columns) {
      const auto field = std::find_if(view.fields.begin(), view.fields.end(), [&](const Field& f) {
        return std::string(f.member) == column.member;
      });
      row.push_back(field != view.fields.end() ? cell(*field) : std::string());
    }
    rows.push_back(row);
  }
  printTable(out, rows);
}

template <typename Seq, typename ToView>
std::vector<View> viewsOf(const Seq& records, ToView toView) {
  std::vector<View> views;
  views.reserve(records.length());
  for (CORBA::ULong i = 0; i < records.length(); ++i) {
    views.push_back(toView(records[i]));
  }
  return views;
}

}  // namespace

std::string CtlPrinter::statusText(int code) {
  const char* text = crvnCatalogueText(271, code);
  if (text == nullptr) {
    text = getECmsg(code);
  }
  return text != nullptr ? text : "unknown status";
}

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

void CtlPrinter::key(const Facets::KeyRecord& record) {
  printView(m_out, m_json, keyView(record));
}

void CtlPrinter::keys(const Facets::KeyRecordSeq& records) {
  printList(m_out, m_json, viewsOf(records, keyView),
            {{"NAME", "name"}, {"STATE", "state"}, {"REV", "rev"}, {"TAG", "tag"}});
}

void CtlPrinter::group(const Facets::KeyGroupRecord& record) {
  printView(m_out, m_json, groupView(record));
}

void CtlPrinter::groups(const Facets::KeyGroupRecordSeq& records) {
  printList(m_out, m_json, viewsOf(records, groupView),
            {{"NAME", "name"},
             {"CIPHER", "cipherType"},
             {"KEYS", "numKeys"},
             {"ACTIVE", "hasActiveKey"},
             {"TAG", "tag"}});
}

void CtlPrinter::status(const CtlStatus& status) {
  View view;
  view.fields = {
      numberField("quiesceCount", "quiesced:", status.quiesceCount),
      numberField("numKeyGroups", "key groups:", status.numKeyGroups),
      numberField("numKeys", "keys:", status.numKeys),
      textField("hmkId", "HMK id:", status.hmkId),
      textField("kpkId", "KPK id:", status.kpkId),
  };
  printView(m_out, m_json, view);
}

void CtlPrinter::quiesceCount(long long count) {
  View view;
  view.fields = {numberField("quiesceCount", "quiesced:", count)};
  printView(m_out, m_json, view);
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
    jsonView(json, keyView(record));
    json.endObject();
    m_out << "\n";
    return;
  }
  textLine(m_out, "kad:", hex(kad) + (result == 1 ? " (unique)" : " (shared with other keys)"));
  textView(m_out, keyView(record));
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
      jsonView(json, keyView(records[i]));
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
    textView(m_out, keyView(records[i]));
  }
}

void CtlPrinter::opStatus(const Facets::KSOpStatus& status) {
  if (m_json) {
    JsonWriter json(m_out);
    json.beginObject();
    json.key("error_code");
    json.value(static_cast<long long>(status.error_code));
    json.key("messages");
    json.beginArray();
    for (CORBA::ULong i = 0; i < status.messages.length(); ++i) {
      const Facets::KSOpMessage& message = status.messages[i];
      json.beginObject();
      json.key("code");
      json.value(static_cast<long long>(message.msg_code));
      json.key("args");
      json.beginArray();
      for (CORBA::ULong j = 0; j < message.args.length(); ++j) {
        json.value(message.args[j].in());
      }
      json.endArray();
      json.endObject();
    }
    json.endArray();
    json.endObject();
    m_out << "\n";
    return;
  }
  for (CORBA::ULong i = 0; i < status.messages.length(); ++i) {
    const Facets::KSOpMessage& message = status.messages[i];
    std::vector<std::string> args;
    for (CORBA::ULong j = 0; j < message.args.length(); ++j) {
      args.emplace_back(message.args[j].in());
    }
    m_out << CtlOpMessages::text(message.msg_code, args) << "\n";
  }
  m_out << "status " << status.error_code << ": " << statusText(status.error_code) << "\n";
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

// The rights that each remote operation of the service asks for. Registered
// with the framework by KMSMgrImpl::init.
//
// KMSMgr_getEximFacet and the query facet's getKey, getKeyAndKad and
// getKeyRecordsByKad have no row on purpose: the framework asks a row-less
// operation for its key-value right (kKeyValueRight, 4), so only a peer
// granted that right receives a key in the clear. Do not add rows for them.
#pragma once

#include <cstddef>
#include <string>

#include "kms/platform/framework/AuthorizationTable.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// 40 rows and the end row.
extern const ::Ardentis::Vaultrest::TL::Framework::authorization_entry_s KMSAuthTable[];
extern const size_t KMSAuthTableRows;

// The rights each remote operation of the service asks for, as a Markdown
// table (one line an operation: the table's operations in its order, then
// those without a row), for the README's "Who may call".
std::string KMSRightsTable();

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest

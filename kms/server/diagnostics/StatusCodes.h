// The status codes of the key store, one name each. statusSymbol knows the
// names that appear in the log.
#pragma once

namespace Vaultrest {
namespace DL {
namespace KMS {

enum StatusCode : int {
  EC_KS_success = 0,
  EC_KS_internal_error = 1200,
  EC_KS_already_initialized = 1201,
  EC_KS_not_initialized = 1202,
  EC_KS_HMKfile_open_error = 1203,
  EC_KS_store_file_open_error = 1204,
  EC_KS_hmk_file_open_only = 1205,
  EC_KS_invalid_HMKfile = 1206,
  EC_KS_invalid_store_file = 1207,
  EC_KS_malformed = 1208,
  EC_KS_hmk_file_exists = 1209,
  EC_KS_file_write_error = 1210,
  EC_KS_bad_passphrase = 1212,
  EC_KS_bad_argument = 1214,
  EC_KS_empty_tag = 1215,
  EC_KS_wrong_hmk = 1221,
  EC_KS_group_not_empty = 1222,
  EC_KS_crypter_not_ready = 1223,
  EC_KS_crypter_failed = 1224,
  EC_KS_integrity_failed = 1225,
  EC_KS_stale_record = 1228,
  EC_KS_unknown_group = 1229,
  EC_KS_cipher_type_differs = 1230,
  EC_KS_key_name_exists = 1231,
  EC_KS_group_name_exists = 1232,
  EC_KS_tag_exists = 1233,
  EC_KS_kad_unique = 1234,
  EC_KS_kad_shared = 1235,
  EC_KS_dir_create_failed = 1236,
  EC_KS_file_create_failed = 1237,
  EC_KS_file_rename_failed = 1238,
  EC_KS_file_delete_failed = 1239,
  EC_KS_state_change_refused = 1240,
  EC_KS_nothing_to_change = 1241,
  EC_KS_not_deletable = 1242,
  EC_KS_kad_all_usable = 1243,
  EC_KS_kad_some_left_out = 1244,
  EC_KS_KPKfile_open_error = 1248,
  EC_KS_wrong_kpk = 1249,
  EC_KS_kpk_file_exists = 1251,
  EC_KS_open_failed = 1252,
  EC_KS_kpk_changed = 1253,
  EC_KS_invalid_kpk_file = 1256,
  EC_KS_config_failure = 1257,
  EC_KS_no_such_config_key = 1258,
  EC_KS_config_wrong_type = 1259,
  EC_KS_unknown_key = 1260,
  EC_KS_too_many_groups = 1262,
  EC_KS_too_many_keys_in_group = 1263,
  EC_KS_random_hmk = 1264,
  EC_KS_random_kpk = 1265,
  EC_KS_not_administrator = 1267,
  EC_KS_store_exists = 1268,
  EC_KS_catalogue_failure = 1269,
  EC_KS_unwrap_failed = 1270,
  EC_KS_not_master_server = 1271,
  EC_KS_service_running = 1272,
  EC_KS_recovery_failed = 1274,
  EC_KS_unknown_file_state = 1275,
  EC_KS_write_failed_nothing_changed = 1276,
  EC_KS_db_write_fail_changed = 1277,
  EC_KS_quiesced = 1279,
  EC_KS_inactive_cluster_node = 1281,
  EC_KS_import_refused = 1283,
  EC_KS_store_empty = 1285,
  EC_KS_fips_unavailable = 1286,
  EC_KS_bad_name = 1287,
  EC_KS_untrusted_path = 1295,
};

// The symbolic name of a code ("EC_KS_internal_error"), or null.
const char* statusSymbol(int code);

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest

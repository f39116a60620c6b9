// The product-wide settings that the master configuration ($VREST_ROOT/etc/vr.conf)
// keeps for every service: USE_CXSS, VERBOSE and EMM_SERVER. C style, as the
// product's configuration library offers them.
#pragma once

// One snapshot of the three settings. Start it zeroed (vrconf_info_t info{}):
// vrconf_free_info() on a zeroed record does nothing.
struct vrconf_info_t {
  int use_cxss;
  int verbose;
  char* emm_server;  // malloc'd, owned by the record; released by vrconf_free_info()
};

// Values of a setting that the file lacks, or whose value is malformed.
constexpr int kVrconfDefaultUseCxss = 2;
constexpr int kVrconfDefaultVerbose = 0;
constexpr const char* kVrconfDefaultEmmServer = "localhost";

// Reads the three settings from the master configuration into *info, which is
// overwritten without being freed first. Returns 0, or non-zero (an errno
// value: the file cannot be read, or info is null); *info is then zeroed.
int vrconf_get_info(vrconf_info_t* info);

// Writes the three settings into the master configuration: the lines of those
// names get the new values, a name the file lacks is appended, every other line
// stays byte for byte. The file is replaced atomically (temporary file, fsync,
// rename) and keeps its mode. Returns 0, or non-zero (an errno value) when the
// file is missing or cannot be rewritten, or when emm_server holds a line break;
// the file is then unchanged. A null emm_server is written as empty.
int vrconf_set_info(const vrconf_info_t* info);

// Frees what *info owns and zeroes it. Null is allowed.
void vrconf_free_info(vrconf_info_t* info);

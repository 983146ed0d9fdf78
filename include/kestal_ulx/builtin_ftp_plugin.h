/**
 * @file
 * A second plugin inside the library, for applications that open FTP locations only: it serves streams of the types
 * "application/ulx_stream" with a source "ftp://..." and "application/ulx_stream_ftp". The built-in plugin (builtin_plugin.h)
 * serves these too; this one is asked first where it was loaded later, by the library's own file and the names of the two
 * entry points:
 *
 *     kestal_load_plugin(NULL, NULL, NULL); // the built-in plugin; otherwise the first context loads it, as the newest
 *     uint32_t id = kestal_load_plugin("libkestal_ulx.so.0", "kestal_plugin_initialize_builtin_ftp_plugin",
 *                                      "kestal_plugin_uninitialize_builtin_ftp_plugin");
 *
 * Options are "src" or "source", "mode" (as of fopen: "a" goes on at the end of the remote file, any other that writes
 * stores the file anew, the rest read; "b" transfers images, without it text; "rb" when there is none) and "debug" or
 * "verbose" (prints the server's replies). User and password are the location's, or anonymous. Connecting has no time
 * limit of its own.
 *
 * Refusals: last error 3 for other types and schemes, a missing source or a bad mode, 8 when the source cannot be cut into
 * its parts, 10 when the server cannot be reached or refuses. The remote size (KESTAL_CTX_CONTROL_GET_SIZE) is stored as asked, but the call says -1 with last error 3:
 * read the record, not the result. Waits say at once that the stream is ready. Nothing can be sought. A read that gives 0 has
 * the server's word that the file is whole.
 */
#ifndef KESTAL_ULX_BUILTIN_FTP_PLUGIN_H
#define KESTAL_ULX_BUILTIN_FTP_PLUGIN_H

#include <kestal_ulx/base.h>
#include <kestal_ulx/plugin.h>

KESTAL_BEGIN_DECLS

/**
 * The entry point that the loader calls. The first call also loads the plugin library "kestal_plugin_curl.so" where there
 * is one; its absence is no error and not reported. Calls are counted. Returns 0, or -1 when `interface` or
 * `interface_size` is null; `mime_type_hint` may be.
 */
KESTAL_API int32_t kestal_plugin_initialize_builtin_ftp_plugin(const char **mime_type_hint,
                                                               const kestal_ctx0_v0_interface_t **interface,
                                                               uint64_t *interface_size);

/** Undoes one initialisation; the last unloads what the first loaded. Returns 0. */
KESTAL_API int32_t kestal_plugin_uninitialize_builtin_ftp_plugin(void);

KESTAL_END_DECLS

#endif

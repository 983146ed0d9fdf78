/**
 * @file
 * The one header of libkestal_ulx: every module's header, floor by floor. C11 and C++.
 */
#ifndef KESTAL_ULX_H
#define KESTAL_ULX_H

/* ground */
#include <kestal_ulx/assertion.h>
#include <kestal_ulx/short_lock.h>
#include <kestal_ulx/time_stamp.h>

/* runtime */
#include <kestal_ulx/assertion_format.h>
#include <kestal_ulx/destroy_stack.h>
#include <kestal_ulx/diagnostics.h>
#include <kestal_ulx/exception.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/global_break.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/terminal.h>
#include <kestal_ulx/terminal_key.h>
#include <kestal_ulx/version.h>

/* containers */
#include <kestal_ulx/fragment.h>
#include <kestal_ulx/hash.h>
#include <kestal_ulx/list.h>
#include <kestal_ulx/select.h>
#include <kestal_ulx/value.h>

/* concurrency */
#include <kestal_ulx/lock.h>
#include <kestal_ulx/service.h>
#include <kestal_ulx/signal.h>
#include <kestal_ulx/spin_lock.h>
#include <kestal_ulx/thread.h>

/* bytes and text */
#include <kestal_ulx/argument.h>
#include <kestal_ulx/buffer.h>
#include <kestal_ulx/file.h>
#include <kestal_ulx/ini.h>
#include <kestal_ulx/percent.h>
#include <kestal_ulx/text.h>
#include <kestal_ulx/uri.h>
#include <kestal_ulx/utf8.h>

/* digests and ciphers */
#include <kestal_ulx/adler32.h>
#include <kestal_ulx/aes.h>
#include <kestal_ulx/base64.h>
#include <kestal_ulx/cipher_mode.h>
#include <kestal_ulx/crc.h>
#include <kestal_ulx/des.h>
#include <kestal_ulx/md5.h>
#include <kestal_ulx/seed.h>
#include <kestal_ulx/sha1.h>
#include <kestal_ulx/sha256.h>

/* network */
#include <kestal_ulx/address.h>
#include <kestal_ulx/event.h>
#include <kestal_ulx/event_buffer.h>
#include <kestal_ulx/multicast.h>
#include <kestal_ulx/network_interface.h>
#include <kestal_ulx/resolver.h>
#include <kestal_ulx/socket.h>
#include <kestal_ulx/socket_opener.h>

/* protocols */
#include <kestal_ulx/cgi.h>
#include <kestal_ulx/ftp.h>
#include <kestal_ulx/ftpd.h>
#include <kestal_ulx/ftpd_account.h>
#include <kestal_ulx/http_digest.h>
#include <kestal_ulx/http_line.h>
#include <kestal_ulx/http_parser.h>
#include <kestal_ulx/ssdp.h>
#include <kestal_ulx/tftp.h>

/* pictures */
#include <kestal_ulx/bitmap_font.h>
#include <kestal_ulx/color.h>
#include <kestal_ulx/fbmap.h>
#include <kestal_ulx/fbmap_draw.h>
#include <kestal_ulx/fbmap_get.h>
#include <kestal_ulx/fbmap_pattern.h>
#include <kestal_ulx/fbmap_record.h>
#include <kestal_ulx/fbmap_text.h>
#include <kestal_ulx/fbmap_update.h>
#include <kestal_ulx/geometry.h>
#include <kestal_ulx/raw_bitmap.h>

/* streams and values */
#include <kestal_ulx/builtin_ftp_plugin.h>
#include <kestal_ulx/builtin_plugin.h>
#include <kestal_ulx/dynamic_library.h>
#include <kestal_ulx/hash_file.h>
#include <kestal_ulx/instance.h>
#include <kestal_ulx/interface.h>
#include <kestal_ulx/json_parser.h>
#include <kestal_ulx/plugin.h>
#include <kestal_ulx/plugin_interface.h>
#include <kestal_ulx/simple_digest.h>

#endif

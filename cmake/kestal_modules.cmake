# The modules of the library, floor by floor: a module includes only headers of floors below, or of its own floor
# where no circle comes of it. Each is source/<name>.cpp, and tests/<name>_test.cpp where it has tests of its own.

set(KESTAL_FLOOR_1 time_stamp assertion short_lock)
set(KESTAL_FLOOR_2 memory format terminal terminal_key output exception destroy_stack global_break
    diagnostics assertion_format version)
set(KESTAL_FLOOR_3 list hash value select fragment)
set(KESTAL_FLOOR_4 spin_lock lock thread service signal)
set(KESTAL_FLOOR_5 argument text utf8 file ini buffer percent uri)
set(KESTAL_FLOOR_6 processor md5 sha1 sha256 crc adler32 base64 aes_hardware aes des seed cipher_mode)
set(KESTAL_FLOOR_7 address network_interface socket resolver multicast socket_opener readiness event event_connect
    event_loop event_service event_buffer)
set(KESTAL_FLOOR_8 color bitmap_font geometry raw_bitmap fill blend fbmap_record fbmap_get fbmap_update fbmap
    fbmap_draw fbmap_text fbmap_pattern
    ftp_engine ftp_command ftp_login ftp_stream ftp_download ftp
    http_digest cgi cgi_incoming cgi_authorization cgi_outgoing
    http_line http_parser ssdp_option ssdp_key ssdp_socket ssdp_scan ssdp
    tftp
    ftpd_account ftpd_path ftpd_session ftpd_login ftpd_data ftpd_transfer ftpd_list ftpd_command ftpd)
set(KESTAL_FLOOR_9 dynamic_library instance plugin interface stream_kind stream_file stream_socket stream_fb
    stream_tftp stream_ftp
    builtin_plugin builtin_ftp_plugin simple_digest hash_file json_parser)

# What waits for people, peers or the kernel, or runs once, is compiled for size; the rest for speed.
set(KESTAL_COMPILED_FOR_SIZE assertion exception destroy_stack global_break diagnostics assertion_format version terminal
    terminal_key output service signal argument uri file ini address network_interface resolver multicast socket_opener socket event_connect
    event_service
    ftp_engine ftp_command ftp_login ftp_stream ftp_download ftp
    http_digest cgi cgi_incoming cgi_authorization cgi_outgoing
    ssdp_option ssdp_key ssdp_socket ssdp_scan ssdp
    raw_bitmap fbmap_record fbmap fbmap_draw fbmap_text fbmap_pattern dynamic_library instance plugin
    interface stream_kind stream_file stream_socket stream_fb builtin_plugin simple_digest hash_file
    tftp stream_tftp stream_ftp builtin_ftp_plugin
    ftpd_account ftpd_path ftpd_session ftpd_login ftpd_data ftpd_transfer ftpd_list ftpd_command ftpd)

set(KESTAL_MODULES)
foreach(floor 1 2 3 4 5 6 7 8 9)
    list(APPEND KESTAL_MODULES ${KESTAL_FLOOR_${floor}})
endforeach()

# Modules whose source does not stand yet are left out.
set(KESTAL_MISSING_MODULES)
foreach(module ${KESTAL_MODULES})
    if(NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/source/${module}.cpp)
        list(REMOVE_ITEM KESTAL_MODULES ${module})
        list(APPEND KESTAL_MISSING_MODULES ${module})
    endif()
endforeach()

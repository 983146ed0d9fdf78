# The modules of the library, floor by floor: a module includes only headers of floors below, or of its own floor
# where no circle comes of it. Each is source/<name>.cpp, and tests/<name>_test.cpp where it has tests of its own.
# Those of KESTAL_FLOOR_<n>_<PART> are there only with the option KESTAL_<PART>.

set(KESTAL_FLOOR_1 time_stamp assertion short_lock)
set(KESTAL_FLOOR_2 memory format terminal terminal_key output exception destroy_stack global_break
    diagnostics assertion_format version)
set(KESTAL_FLOOR_3 list hash value select fragment)
set(KESTAL_FLOOR_4 spin_lock lock thread service signal)
set(KESTAL_FLOOR_5 argument text utf8 file ini buffer percent uri)
set(KESTAL_FLOOR_6 processor md5 sha1 sha256 crc adler32 base64)
set(KESTAL_FLOOR_6_CIPHERS aes_hardware aes des seed cipher_mode)
set(KESTAL_FLOOR_7 address network_interface socket resolver multicast socket_opener readiness event event_connect
    event_loop event_service event_buffer)
set(KESTAL_FLOOR_8_PICTURES color bitmap_font geometry raw_bitmap fill blend fbmap_record fbmap_get fbmap_update fbmap
    fbmap_draw fbmap_text fbmap_pattern)
set(KESTAL_FLOOR_8_PROTOCOLS ftp_engine ftp_command ftp_login ftp_stream ftp_download ftp
    http_digest cgi cgi_incoming cgi_authorization cgi_outgoing
    http_line http_parser ssdp_option ssdp_key ssdp_socket ssdp_scan ssdp
    tftp
    ftpd_account ftpd_path ftpd_session ftpd_login ftpd_data ftpd_transfer ftpd_list ftpd_command ftpd)
set(KESTAL_FLOOR_9 dynamic_library instance plugin interface stream_kind stream_file stream_socket
    builtin_plugin simple_digest hash_file json_parser)
set(KESTAL_FLOOR_9_PICTURES stream_fb)
set(KESTAL_FLOOR_9_PROTOCOLS stream_tftp stream_ftp builtin_ftp_plugin)

# What waits for people, peers or the kernel, or runs once, is compiled for size; the rest for speed.
set(KESTAL_COMPILED_FOR_SIZE assertion exception destroy_stack global_break diagnostics assertion_format version terminal
    terminal_key output service signal argument text percent select uri file ini address network_interface resolver multicast socket_opener socket event_connect
    event_service
    ftp_engine ftp_command ftp_login ftp_stream ftp_download ftp
    http_digest cgi cgi_incoming cgi_authorization cgi_outgoing
    ssdp_option ssdp_key ssdp_socket ssdp_scan ssdp
    raw_bitmap fbmap_record fbmap fbmap_draw fbmap_text fbmap_pattern dynamic_library instance plugin
    interface stream_kind stream_file stream_socket stream_fb builtin_plugin simple_digest hash_file
    tftp stream_tftp stream_ftp builtin_ftp_plugin
    ftpd_account ftpd_path ftpd_session ftpd_login ftpd_data ftpd_transfer ftpd_list ftpd_command ftpd)

set(KESTAL_PARTS PICTURES PROTOCOLS CIPHERS)
option(KESTAL_PICTURES "Colours, fonts, frame-buffer maps and the frame-buffer streams" ON)
option(KESTAL_PROTOCOLS "HTTP, CGI, FTP, TFTP, SSDP and the streams over FTP and TFTP" ON)
option(KESTAL_CIPHERS "AES, DES, SEED and the modes of operation" ON)

set(KESTAL_MODULES)
set(KESTAL_MODULES_LEFT_OUT)
foreach(floor RANGE 1 9)
    list(APPEND KESTAL_MODULES ${KESTAL_FLOOR_${floor}})
    foreach(part ${KESTAL_PARTS})
        if(KESTAL_${part})
            list(APPEND KESTAL_MODULES ${KESTAL_FLOOR_${floor}_${part}})
        else()
            list(APPEND KESTAL_MODULES_LEFT_OUT ${KESTAL_FLOOR_${floor}_${part}})
        endif()
    endforeach()
endforeach()

# The parts that are there, in words: what an installed copy says of itself.
set(KESTAL_PARTS_PRESENT)
foreach(part ${KESTAL_PARTS})
    if(KESTAL_${part})
        string(TOLOWER ${part} part)
        list(APPEND KESTAL_PARTS_PRESENT ${part})
    endif()
endforeach()

# Public headers declare only what is there: where parts are left out, kestal_ulx.h is written anew without theirs.
set(KESTAL_INCLUDE_DIRS ${CMAKE_CURRENT_SOURCE_DIR}/include)
set(KESTAL_UMBRELLA ${CMAKE_CURRENT_SOURCE_DIR}/include/kestal_ulx.h)
if(KESTAL_MODULES_LEFT_OUT)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KESTAL_UMBRELLA})
    file(READ ${KESTAL_UMBRELLA} umbrella)
    foreach(module ${KESTAL_MODULES_LEFT_OUT})
        string(REPLACE "#include <kestal_ulx/${module}.h>\n" "" umbrella "${umbrella}")
    endforeach()
    string(REGEX REPLACE "/\\* [a-z ]+ \\*/\n\n" "" umbrella "${umbrella}") # headings with nothing below
    set(KESTAL_UMBRELLA ${CMAKE_CURRENT_BINARY_DIR}/include/kestal_ulx.h)
    file(CONFIGURE OUTPUT ${KESTAL_UMBRELLA} CONTENT "${umbrella}" @ONLY)
    list(PREPEND KESTAL_INCLUDE_DIRS ${CMAKE_CURRENT_BINARY_DIR}/include)
endif()

# Toolchain for musl by Debian's musl-tools, which know C alone. The library needs no C++ at run time: its sources are
# compiled by the machine's own g++ with its templates over musl's headers, and linked by musl-gcc.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

function(kestal_ask_compiler result question)
    execute_process(COMMAND ${question} OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE)
    set(${result} ${answer} PARENT_SCOPE)
endfunction()
kestal_ask_compiler(version "g++;-dumpversion")
kestal_ask_compiler(triplet "g++;-dumpmachine")
kestal_ask_compiler(multiarch "g++;-print-multiarch")
kestal_ask_compiler(builtin "g++;-print-file-name=include")
string(REGEX MATCH "^[0-9]+" version "${version}")
string(REGEX MATCH "^[^-]+" machine "${triplet}")
# The kernel's headers, and nothing else of what lies beside them.
set(kernel ${CMAKE_BINARY_DIR}/kernel-headers)
file(MAKE_DIRECTORY ${kernel})
file(CREATE_LINK /usr/include/linux ${kernel}/linux SYMBOLIC)
file(CREATE_LINK /usr/include/asm-generic ${kernel}/asm-generic SYMBOLIC)
file(CREATE_LINK /usr/include/${multiarch}/asm ${kernel}/asm SYMBOLIC)
foreach(folder ${CMAKE_CURRENT_LIST_DIR}/musl /usr/include/c++/${version} /usr/include/${multiarch}/c++/${version}
        /usr/include/${machine}-linux-musl ${builtin} ${kernel})
    string(APPEND folders " -isystem ${folder}")
endforeach()
set(CMAKE_CXX_FLAGS_INIT "-nostdinc -nostdinc++${folders}")

# What an installed copy consists of: library and archive, headers, pkg-config file and CMake package. Three components,
# so that packages can be cut: runtime (the shared object), development (the rest), programs (the examples).

include(CMakePackageConfigHelpers)

set(kestal_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kestal_ulx)

set_target_properties(kestal_ulx PROPERTIES EXPORT_NAME shared)
set_target_properties(kestal_ulx_static PROPERTIES EXPORT_NAME static)
target_link_libraries(kestal_ulx_static INTERFACE -pthread ${CMAKE_DL_LIBS})
# A project that takes this tree in by add_subdirectory has the same names.
add_library(kestal_ulx::kestal_ulx ALIAS kestal_ulx)
add_library(kestal_ulx::shared ALIAS kestal_ulx)
add_library(kestal_ulx::static ALIAS kestal_ulx_static)

install(TARGETS kestal_ulx kestal_ulx_static EXPORT kestal_ulx
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${KESTAL_UMBRELLA} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
set(left_out)
foreach(module ${KESTAL_MODULES_LEFT_OUT})
    list(APPEND left_out PATTERN ${module}.h EXCLUDE)
endforeach()
install(DIRECTORY include/kestal_ulx DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.h" ${left_out})
list(JOIN KESTAL_PARTS_PRESENT " " kestal_parts)

# Written when installing, for the prefix that "cmake --install --prefix" names counts.
install(CODE "
    set(PROJECT_NAME ${PROJECT_NAME})
    set(PROJECT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
    set(PROJECT_VERSION ${PROJECT_VERSION})
    set(KESTAL_PARTS \"${kestal_parts}\")
    set(CMAKE_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR})
    set(CMAKE_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
    configure_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/kestal_ulx.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kestal_ulx.pc @ONLY)
" COMPONENT development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestal_ulx.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

configure_package_config_file(cmake/kestal_ulx-config.cmake.in kestal_ulx-config.cmake
    INSTALL_DESTINATION ${kestal_package_dir})
write_basic_package_version_file(kestal_ulx-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestal_ulx-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/kestal_ulx-config-version.cmake
    DESTINATION ${kestal_package_dir} COMPONENT development)
install(EXPORT kestal_ulx FILE kestal_ulx-targets.cmake NAMESPACE kestal_ulx::
    DESTINATION ${kestal_package_dir} COMPONENT development)

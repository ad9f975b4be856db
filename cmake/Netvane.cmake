# Shared helpers for every component's CMakeLists.

# Public headers install under their own folder so that `support/` and
# `netcore/` do not land at the top of a system include directory.
set(NETVANE_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/netvane")

# Adds every subdirectory of DIR that carries a CMakeLists.txt, so components can
# grow independently without a central list to edit.
function(netvane_add_subdirectories dir)
  file(GLOB children LIST_DIRECTORIES true "${dir}/*")
  list(SORT children)
  foreach(child IN LISTS children)
    if(IS_DIRECTORY "${child}" AND EXISTS "${child}/CMakeLists.txt")
      add_subdirectory("${child}")
    endif()
  endforeach()
endfunction()

# netvane_test(NAME SOURCES... LIBS libs... [LABELS labels...])
# One GoogleTest executable, its cases registered with CTest. Tests are
# labelled `unit` unless they are labelled `integration`.
function(netvane_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT "integration" IN_LIST T_LABELS)
    list(PREPEND T_LABELS unit)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
  # Labels go through a file of our own: gtest_discover_tests flattens a list
  # given as PROPERTIES, which would keep only the first label.
  set(labels_file "${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake")
  file(WRITE "${labels_file}"
    "set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${T_LABELS}\")\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labels_file}")
endfunction()

# netvane_embed_info_plist(TARGET IDENTIFIER NAME)
# Gives an executable its own Info.plist, generated from the template at
# configure time and compiled in; support/bundle_info reads it back.
function(netvane_embed_info_plist target identifier bundle_name)
  set(NV_BUNDLE_IDENTIFIER "${identifier}")
  set(NV_BUNDLE_NAME "${bundle_name}")
  set(NV_SHORT_VERSION "${PROJECT_VERSION}")
  set(NV_TEAM_ID "${NETVANE_TEAM_ID}")
  set(plist "${CMAKE_CURRENT_BINARY_DIR}/${target}.Info.plist")
  configure_file("${PROJECT_SOURCE_DIR}/packaging/Info.plist.in" "${plist}" @ONLY)
  # The file's bytes exactly, with no terminator after them.
  file(READ "${plist}" hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," NV_INFO_PLIST_BYTES "${hex}")
  if(NETVANE_OS STREQUAL "darwin")
    # Where macOS looks for a command-line program's Info.plist.
    set(NV_INFO_PLIST_SECTION "__TEXT,__info_plist")
  elseif(NETVANE_OS STREQUAL "linux")
    set(NV_INFO_PLIST_SECTION ".nv_info_plist")
  else()
    netvane_port_missing("object file section for the embedded Info.plist (cmake/Netvane.cmake)")
  endif()
  set(source "${CMAKE_CURRENT_BINARY_DIR}/${target}_info_plist.cpp")
  configure_file("${PROJECT_SOURCE_DIR}/packaging/embedded_info_plist.cpp.in" "${source}" @ONLY)
  target_sources(${target} PRIVATE "${source}")
endfunction()

# netvane_install_configured(TEMPLATE DESTINATION [RENAME NAME] [COMPONENT C]
#                            [VARIABLES VAR...])
# Installs a file made from TEMPLATE into DESTINATION (relative to the
# prefix, unless absolute) while installing rather than while configuring,
# so that the absolute paths in it follow the prefix actually installed to
# (`cmake --install --prefix`, cpack). The template sees
# @NETVANE_PREFIX@, @NETVANE_FULL_<DIR>@ for BINDIR, SBINDIR, LIBDIR,
# INCLUDEDIR, DATADIR and MANDIR, and the configure-time VARIABLES.
function(netvane_install_configured template destination)
  cmake_parse_arguments(A "" "RENAME;COMPONENT" "VARIABLES" ${ARGN})
  get_filename_component(name "${template}" NAME)
  string(REGEX REPLACE "\\.in$" "" name "${name}")
  if(A_RENAME)
    set(name "${A_RENAME}")
  endif()
  if(NOT A_COMPONENT)
    set(A_COMPONENT runtime)
  endif()
  set(root "\${CMAKE_INSTALL_PREFIX}/")
  if(IS_ABSOLUTE "${destination}")
    set(root "")
  endif()
  set(code "")
  foreach(var IN LISTS A_VARIABLES)
    string(APPEND code "set(${var} [==[${${var}}]==])\n")
  endforeach()
  foreach(dir BINDIR SBINDIR LIBDIR INCLUDEDIR DATADIR MANDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
      string(APPEND code "set(NETVANE_FULL_${dir} [==[${CMAKE_INSTALL_${dir}}]==])\n")
    else()
      string(APPEND code "set(NETVANE_FULL_${dir} \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_${dir}}\")\n")
    endif()
  endforeach()
  string(APPEND code "
set(NETVANE_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
set(installed \"\$ENV{DESTDIR}${root}${destination}/${name}\")
message(STATUS \"Installing: \${installed}\")
configure_file([==[${template}]==] \"\${installed}\" @ONLY)
file(CHMOD \"\${installed}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${installed}\")
")
  install(CODE "${code}" COMPONENT "${A_COMPONENT}")
endfunction()

# Test registration shared by every test folder.
#
# videod_add_tests(LABEL <label> LIBS <libs...> [REALTIME <names...>] [SERIAL <names...>])
# turns every *_test.cpp of the calling folder into one GoogleTest executable
# whose cases become one ctest entry each (`ctest -R Suite.Case` runs one,
# `-j` spreads them), labelled <label>. Executables named after REALTIME are
# also labelled "realtime" and run alone (RUN_SERIAL): they encode or play
# media live against the clock and judge the result by it,
# which user-mode emulation of the board cannot keep up with. Cases of the
# executables named after SERIAL share the resource lock "tcp4000" (TCP port
# 4000) and never run at the same time. The tests run against the stand-in
# plug-in of the build tree with a private registry, so the machine's own
# GStreamer registry is never touched, and with the software sound device of
# host/alsa, so results never depend on the machine's sound card.

set(VIDEOD_PLUGIN_DIR "${CMAKE_BINARY_DIR}/host/gst")
set(VIDEOD_TEST_ENV
    "GST_PLUGIN_PATH=${CMAKE_BINARY_DIR}/host/gst"
    "GST_REGISTRY=${CMAKE_BINARY_DIR}/gst-registry.bin"
    "GST_REGISTRY_FORK=no"
    "VIDEOD_SOURCE_DIR=${CMAKE_SOURCE_DIR}"
    "VIDEOD_BINARY_DIR=${CMAKE_BINARY_DIR}"
    "ALSA_CONFIG_PATH=${CMAKE_BINARY_DIR}/host/alsa/asound.conf")
if(VIDEOD_SANITIZE)
  # Leaks are checked; the one-time allocations of the libraries are not ours
  # (full stacks: the system libraries keep no frame pointers).
  list(APPEND VIDEOD_TEST_ENV "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/lsan.supp:fast_unwind_on_malloc=0")
endif()
if(VIDEOD_TSAN)
  # A race fails the test (exit code 66). Only instrumented code is judged:
  # GLib and GStreamer order their threads through futexes ThreadSanitizer
  # cannot see, so their own allocations would read as races.
  list(APPEND VIDEOD_TEST_ENV "TSAN_OPTIONS=ignore_noninstrumented_modules=1:second_deadlock_stack=1")
endif()
if(CMAKE_CROSSCOMPILING)
  # Under emulation the target's own plug-ins live in the sysroot.
  list(APPEND VIDEOD_TEST_ENV
       "GST_PLUGIN_SYSTEM_PATH=${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/gstreamer-1.0"
       "VIDEOD_EMULATED=1")
endif()

include(GoogleTest)

function(videod_add_tests)
  cmake_parse_arguments(ARG "" "LABEL" "LIBS;SERIAL;REALTIME" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp")
  foreach(source ${sources})
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}")
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main
                          Threads::Threads)
    target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}/tests" "${CMAKE_SOURCE_DIR}/src")
    if(TARGET gstvideodhost)
      add_dependencies(${name} gstvideodhost)
    endif()
    set(labels "${ARG_LABEL}")
    set(lock "")
    if(name IN_LIST ARG_REALTIME)
      list(APPEND labels realtime)
      set(lock RUN_SERIAL TRUE)
    endif()
    if(name IN_LIST ARG_SERIAL)
      list(APPEND lock RESOURCE_LOCK tcp4000)
    endif()
    # Listed when ctest runs, so a build never has to start the test programs
    # (under emulation that takes a while).
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120)
    # The discovery script flattens list-valued properties (labels, the
    # environment), so they are set on the discovered cases by a file that
    # ctest reads after the discovery.
    set(properties_file "${CMAKE_CURRENT_BINARY_DIR}/${name}_properties.cmake")
    file(GENERATE OUTPUT "${properties_file}" CONTENT
         "if(${name}_TESTS)
  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${labels}\"
                       ENVIRONMENT \"${VIDEOD_TEST_ENV}\" TIMEOUT 300 ${lock})
endif()
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${properties_file}")
  endforeach()
endfunction()

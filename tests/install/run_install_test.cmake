# cmake -P run_install_test.cmake, with:
#   MIRAVEL_BUILD_DIR    the built Miravel tree to install
#   CONSUMER_SOURCE_DIR  the client project (tests/install/consumer)
#   WORK_DIR             scratch folder: <WORK_DIR>/prefix, <WORK_DIR>/consumer-build
#   CXX_COMPILER         the C++ compiler of the Miravel build
#   BUILD_TYPE           the configuration to install and to build the client in
#   INSTALL_LIBDIR       CMAKE_INSTALL_LIBDIR of the Miravel build (relative)
#   INSTALL_INCLUDEDIR   CMAKE_INSTALL_INCLUDEDIR of the Miravel build (relative)
#   GENERATOR, MAKE_PROGRAM            optional: the generator for the client
#   CONSUMER_CXX_FLAGS, CONSUMER_LINK_FLAGS  optional: flags for the client
#
# 1. installs the build into a fresh <WORK_DIR>/prefix,
# 2. checks that the library, the platform libraries, the public headers and
#    the package configuration are there, and that no installed library still
#    points into the build tree,
# 3. configures the client with CMAKE_PREFIX_PATH=<prefix>, builds it and runs
#    it with no LD_LIBRARY_PATH, checking that every Miravel library it loads
#    comes from the prefix.
# Any failure ends the script with FATAL_ERROR, which fails the test.

cmake_minimum_required(VERSION 3.25)

foreach(var MIRAVEL_BUILD_DIR CONSUMER_SOURCE_DIR WORK_DIR CXX_COMPILER INSTALL_LIBDIR INSTALL_INCLUDEDIR)
  if("${${var}}" STREQUAL "")
    message(FATAL_ERROR "run_install_test.cmake: -D${var}=... is required")
  endif()
endforeach()
foreach(var INSTALL_LIBDIR INSTALL_INCLUDEDIR)
  if(IS_ABSOLUTE "${${var}}")
    message(FATAL_ERROR
      "${var} is the absolute path '${${var}}'; `cmake --install --prefix` cannot move it, "
      "so this test needs a build configured with a relative CMAKE_${var}.")
  endif()
endforeach()

set(prefix "${WORK_DIR}/prefix")
set(consumer_build "${WORK_DIR}/consumer-build")
set(libdir "${prefix}/${INSTALL_LIBDIR}")
set(includedir "${prefix}/${INSTALL_INCLUDEDIR}")

# Runs a command; stops with its output when it fails.
function(run_step what)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE result
    OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n${ARGN}\n${output}")
  endif()
  set(step_output "${output}" PARENT_SCOPE)
endfunction()

set(config_args "")
if(NOT "${BUILD_TYPE}" STREQUAL "")
  set(config_args --config "${BUILD_TYPE}")
endif()

# ---------------------------------------------------------------------------
# 1. Install into a fresh prefix

file(REMOVE_RECURSE "${prefix}" "${consumer_build}")
run_step("cmake --install" "${CMAKE_COMMAND}" --install "${MIRAVEL_BUILD_DIR}" --prefix "${prefix}" ${config_args})
message(STATUS "Installed ${MIRAVEL_BUILD_DIR} into ${prefix}")

# ---------------------------------------------------------------------------
# 2. What the install must provide

set(platform_libraries ZorLogger ZorUtils BsDataStructure DataModel)
set(expected
  "${libdir}/libMiravel.so"
  "${includedir}/Miravel/Miravel.h"
  "${includedir}/Miravel/Platform/ZorLogger/ZorLogger.h"
  "${includedir}/Miravel/Platform/ZorPlatformExport.h"
  "${includedir}/Common/ZorInternalComUtility.h"
  "${libdir}/cmake/Miravel/MiravelConfig.cmake"
  "${libdir}/cmake/Miravel/MiravelConfigVersion.cmake"
  "${libdir}/cmake/Miravel/MiravelTargets.cmake")
foreach(name IN LISTS platform_libraries)
  list(APPEND expected "${libdir}/libMiravel${name}.so")
endforeach()
set(missing "")
foreach(file IN LISTS expected)
  if(NOT EXISTS "${file}")
    list(APPEND missing "${file}")
  endif()
endforeach()
if(missing)
  list(JOIN missing "\n  " missing_text)
  message(FATAL_ERROR "cmake --install did not install:\n  ${missing_text}")
endif()

# The installed libraries find each other through $ORIGIN and never through
# the build tree (which would hide a broken install while the build exists).
find_program(READELF NAMES readelf)
if(READELF)
  file(REAL_PATH "${MIRAVEL_BUILD_DIR}" build_dir_real)
  foreach(name Miravel ${platform_libraries})
    if(name STREQUAL "Miravel")
      set(lib "${libdir}/libMiravel.so")
    else()
      set(lib "${libdir}/libMiravel${name}.so")
    endif()
    run_step("readelf -d ${lib}" "${READELF}" -d "${lib}")
    string(REGEX MATCHALL "Library (runpath|rpath): \\[[^]\n]*\\]" search_paths "${step_output}")
    foreach(build_dir_form "${MIRAVEL_BUILD_DIR}" "${build_dir_real}")
      string(FIND "${search_paths}" "${build_dir_form}" at)
      if(NOT at EQUAL -1)
        message(FATAL_ERROR "The installed ${lib} still searches the build tree: ${search_paths}")
      endif()
    endforeach()
    if(NOT search_paths MATCHES "\\$ORIGIN")
      message(FATAL_ERROR
        "The installed ${lib} has no $ORIGIN search path (${search_paths}); "
        "it would not find the platform libraries installed beside it.")
    endif()
  endforeach()
else()
  message(STATUS "readelf not found: the RUNPATH of the installed libraries is not inspected")
endif()

# ---------------------------------------------------------------------------
# 3. The client: configure, build, run

set(generator_args "")
if(NOT "${GENERATOR}" STREQUAL "")
  list(APPEND generator_args -G "${GENERATOR}")
  if(NOT "${MAKE_PROGRAM}" STREQUAL "")
    list(APPEND generator_args "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}")
  endif()
endif()
run_step("Configuring the client" "${CMAKE_COMMAND}"
  -S "${CONSUMER_SOURCE_DIR}" -B "${consumer_build}"
  ${generator_args}
  "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}"
  "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}"
  "-DCMAKE_PREFIX_PATH=${prefix}"
  "-DCMAKE_CXX_FLAGS=${CONSUMER_CXX_FLAGS}"
  "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_LINK_FLAGS}"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF
  -DCMAKE_EXPORT_COMPILE_COMMANDS=ON)

# The package must come from the prefix, not from another installed copy.
file(STRINGS "${consumer_build}/CMakeCache.txt" miravel_dir_line REGEX "^Miravel_DIR:")
string(REGEX REPLACE "^Miravel_DIR:[A-Z]+=" "" miravel_dir "${miravel_dir_line}")
file(REAL_PATH "${libdir}/cmake/Miravel" expected_dir)
if(EXISTS "${miravel_dir}")
  file(REAL_PATH "${miravel_dir}" miravel_dir)
endif()
if(NOT miravel_dir STREQUAL expected_dir)
  message(FATAL_ERROR "The client found the Miravel package in '${miravel_dir}', not in '${expected_dir}'")
endif()

# The package's headers reach the client as its own (-I, not -isystem), so
# the client's -Werror covers them.
if(EXISTS "${consumer_build}/compile_commands.json")
  file(READ "${consumer_build}/compile_commands.json" compile_commands)
  string(FIND "${compile_commands}" "-isystem ${prefix}" system_at)
  if(NOT system_at EQUAL -1)
    message(FATAL_ERROR "The installed headers are included as system headers, which hides their warnings:\n${compile_commands}")
  endif()
  string(FIND "${compile_commands}" "-I${includedir}" include_at)
  if(include_at EQUAL -1)
    message(FATAL_ERROR "The client is not compiled with -I${includedir}:\n${compile_commands}")
  endif()
else()
  message(STATUS "No compile_commands.json with this generator: the include flags are not inspected")
endif()

run_step("Building the client" "${CMAKE_COMMAND}" --build "${consumer_build}" ${config_args})

set(consumer_exe "")
foreach(candidate "${consumer_build}/miravel_consumer" "${consumer_build}/${BUILD_TYPE}/miravel_consumer")
  if(EXISTS "${candidate}" AND NOT IS_DIRECTORY "${candidate}")
    set(consumer_exe "${candidate}")
    break()
  endif()
endforeach()
if(consumer_exe STREQUAL "")
  message(FATAL_ERROR "The client build produced no miravel_consumer executable in ${consumer_build}")
endif()

# No LD_LIBRARY_PATH: the client's RPATH and the libraries' $ORIGIN must do.
execute_process(COMMAND "${CMAKE_COMMAND}" -E env --unset=LD_LIBRARY_PATH "${consumer_exe}"
  RESULT_VARIABLE run_result
  OUTPUT_VARIABLE run_stdout
  ERROR_VARIABLE run_stderr)
if(NOT run_result EQUAL 0)
  message(FATAL_ERROR "${consumer_exe} failed (${run_result}):\n${run_stdout}${run_stderr}")
endif()
if(NOT run_stdout MATCHES "consumer ok")
  message(FATAL_ERROR "${consumer_exe} exited with 0 but did not print 'consumer ok':\n${run_stdout}${run_stderr}")
endif()

# Every Miravel library the client loads resolves into the prefix.
find_program(LDD NAMES ldd)
if(LDD)
  execute_process(COMMAND "${CMAKE_COMMAND}" -E env --unset=LD_LIBRARY_PATH "${LDD}" "${consumer_exe}"
    RESULT_VARIABLE ldd_result
    OUTPUT_VARIABLE ldd_output
    ERROR_VARIABLE ldd_output)
  if(NOT ldd_result EQUAL 0)
    message(FATAL_ERROR "ldd ${consumer_exe} failed (${ldd_result}):\n${ldd_output}")
  endif()
  file(REAL_PATH "${libdir}" libdir_real)
  string(REGEX MATCHALL "libMiravel[A-Za-z]*\\.so[.0-9]* => [^ \n]*" loaded "${ldd_output}")
  set(loaded_names "")
  foreach(entry IN LISTS loaded)
    string(REGEX REPLACE "^([^ ]+) => (.*)$" "\\1" soname "${entry}")
    string(REGEX REPLACE "^([^ ]+) => (.*)$" "\\2" path "${entry}")
    if(NOT EXISTS "${path}")
      message(FATAL_ERROR "${consumer_exe}: ${soname} is not found without LD_LIBRARY_PATH:\n${ldd_output}")
    endif()
    get_filename_component(dir "${path}" DIRECTORY)
    file(REAL_PATH "${dir}" dir)
    if(NOT dir STREQUAL libdir_real)
      message(FATAL_ERROR "${consumer_exe} loads ${soname} from ${path}, not from ${libdir}:\n${ldd_output}")
    endif()
    string(REGEX REPLACE "\\.so.*$" "" base "${soname}")
    list(APPEND loaded_names "${base}")
  endforeach()
  foreach(name Miravel ${platform_libraries})
    if(name STREQUAL "Miravel")
      set(base libMiravel)
    else()
      set(base libMiravel${name})
    endif()
    if(NOT base IN_LIST loaded_names)
      message(FATAL_ERROR "${consumer_exe} does not load ${base}:\n${ldd_output}")
    endif()
  endforeach()
else()
  message(STATUS "ldd not found: where the client's libraries come from is not inspected")
endif()

message(STATUS "The client built against ${prefix} and ran: ${run_stdout}")

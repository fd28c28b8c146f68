# MIRAVEL_SANITIZE selects an instrumented build; each sanitizer build has its
# own build folder (see scripts/test.sh). Any report aborts the process.
if(MIRAVEL_SANITIZE)
  set(_miravel_san "")
  foreach(_s IN LISTS MIRAVEL_SANITIZE)
    list(APPEND _miravel_san "-fsanitize=${_s}")
  endforeach()
  add_compile_options(${_miravel_san} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(${_miravel_san})
  # Instrumentation makes GCC's flow analysis report uninitialised reads that
  # cannot happen (inside libstdc++'s std::function and std::regex); the
  # normal build keeps the warning.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
if(MIRAVEL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "MIRAVEL_FUZZ needs clang (scripts/fuzz.sh configures it)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

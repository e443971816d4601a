# Instrumented builds. Both options apply to every target of the tree, the
# libraries included, so that a fault is caught where it happens and not only
# in the code of the test or fuzz target that reached it.
#
#   HALVARINE_SANITIZE  AddressSanitizer and UndefinedBehaviorSanitizer, any
#                       compiler (scripts/sanitize.sh).
#   HALVARINE_FUZZ      libFuzzer targets under fuzz/; clang only
#                       (scripts/fuzz.sh). Implies the same sanitizers, and
#                       adds coverage instrumentation to the libraries.

option(HALVARINE_SANITIZE "Build everything with ASan and UBSan" OFF)
option(HALVARINE_FUZZ "Build the libFuzzer targets (clang only)" OFF)

# Undefined behaviour stops the program at the first report: a report that
# only prints would let a test or a fuzz run pass over it.
set(HALVARINE_SANITIZER_FLAGS
  -fsanitize=address,undefined
  -fno-omit-frame-pointer
  -fno-sanitize-recover=undefined)

if(HALVARINE_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR
      "HALVARINE_FUZZ needs clang (libFuzzer): configure with "
      "-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang")
  endif()
  # Libraries get the coverage counters without libFuzzer's main(); only the
  # fuzz targets link the fuzzer itself (fuzz/CMakeLists.txt).
  add_compile_options(-fsanitize=fuzzer-no-link ${HALVARINE_SANITIZER_FLAGS})
  add_link_options(${HALVARINE_SANITIZER_FLAGS})
elseif(HALVARINE_SANITIZE)
  add_compile_options(${HALVARINE_SANITIZER_FLAGS})
  add_link_options(${HALVARINE_SANITIZER_FLAGS})
  # gcc's flow analysis sees the sanitizers' instrumentation and reports
  # uninitialised reads inside the standard library (std::function in
  # std::regex) that the plain build does not; the sanitizers themselves
  # check those reads for real.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()

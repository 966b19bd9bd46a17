# Warnings, sanitizers and hardening that every target of this project gets.

add_library(orx_compile_options INTERFACE)

target_compile_options(orx_compile_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual
  -Wnull-dereference -Wformat=2 -Wimplicit-fallthrough)
# GCC 12 reports false positives of these from inside the standard library once it optimises.
target_compile_options(orx_compile_options INTERFACE
  $<$<CXX_COMPILER_ID:GNU>:-Wno-null-dereference -Wno-restrict -Wno-stringop-overflow -Wno-array-bounds>)
if(ORX_WERROR)
  target_compile_options(orx_compile_options INTERFACE -Werror)
endif()
if(ORX_SANITIZE)
  target_compile_options(orx_compile_options INTERFACE -fsanitize=${ORX_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(orx_compile_options INTERFACE -fsanitize=${ORX_SANITIZE})
  if(ORX_SANITIZE MATCHES "undefined")
    target_compile_options(orx_compile_options INTERFACE -fno-sanitize-recover=undefined)
    # The clang of Debian 12 cannot put this check's data before the parts of a coroutine.
    target_compile_options(orx_compile_options INTERFACE $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=function>)
  endif()
  if(ORX_SANITIZE MATCHES "thread")
    target_compile_definitions(orx_compile_options INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
    target_compile_options(orx_compile_options INTERFACE -Wno-tsan)
  endif()
  # The interposed string functions of the sanitizers confuse this analysis.
  target_compile_options(orx_compile_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
else()
  # Copies of empty std::optional members are reported by the optimiser of GCC 12.
  target_compile_options(orx_compile_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
if(ORX_BUILD_FUZZERS)
  # Counts the branches that an input takes, in the libraries too.
  target_compile_options(orx_compile_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
target_compile_definitions(orx_compile_options INTERFACE
  QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_URL_CAST_FROM_STRING QT_NO_KEYWORDS
  QT_NO_NARROWING_CONVERSIONS_IN_CONNECT QT_DISABLE_DEPRECATED_BEFORE=0x060400)
install(TARGETS orx_compile_options EXPORT OrxHalvaneTargets)

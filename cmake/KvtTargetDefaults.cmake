# Compile options shared by every target of the project: warnings and the
# sanitizer selected with KVT_SANITIZE. Applied per target, never globally.
function(kvt_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(KVT_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${KVT_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${KVT_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      # gcc 12's sanitizer instrumentation makes -Wmaybe-uninitialized report
      # false positives inside libstdc++ (std::function, std::regex).
      target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
    endif()
  endif()
  if(KVT_BUILD_FUZZ)
    # Coverage feedback for libFuzzer from every target, the library included.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

# Compiler settings shared by every target of the project.

find_program(QUORVIA_CCACHE ccache)
if(QUORVIA_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # The sloppiness lets ccache cache sources built with a precompiled header.
  set(QUORVIA_LAUNCHER env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      ${QUORVIA_CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${QUORVIA_LAUNCHER})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${QUORVIA_LAUNCHER})
endif()

if(QUORVIA_SANITIZE)
  add_compile_options(-fsanitize=${QUORVIA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QUORVIA_SANITIZE})
endif()

# Warnings on our own code only (third-party headers are system headers);
# errors where QUORVIA_WERROR says so.
function(quorvia_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-missing-field-initializers
    $<$<BOOL:${QUORVIA_WERROR}>:-Werror>)
  # GCC 12 with optimisation reports "literal" + std::string and other
  # inlined libstdc++ code as an overlapping, oversized or out-of-bounds copy
  # (GCC bugs 105329, 105651), and the engaged flag of a std::optional
  # destroyed in an initializer list as maybe uninitialized (GCC bug 80635),
  # in every optimised build type.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE
      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-Wno-restrict -Wno-stringop-overflow -Wno-stringop-overread
        -Wno-array-bounds -Wno-maybe-uninitialized>)
  endif()
endfunction()

# Fontconfig keeps caches for the life of the process and Pango loads it on a
# glib thread behind locks the sanitizers cannot see: every executable that may
# render text carries the suppressions for those libraries' own reports.
function(quorvia_sanitizer_suppressions target)
  if(QUORVIA_SANITIZE)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/SanitizerSuppressions.cpp)
  endif()
endfunction()

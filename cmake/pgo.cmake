# Profile-guided optimization of the shared library (optimized g++ and
# clang++ builds).
#
# A second copy of the library, krvxml_pgo_gen, is built with the same
# sources and flags plus -fprofile-generate; krvxml_pgo_train (pgo_train.cpp)
# runs against it and leaves branch and call counts in pgo/raw, and krvxml
# is compiled with -fprofile-use.
# - g++: the count files are renamed to the object paths of krvxml.
#   Functions the training never ran are optimized as without a profile
#   (-fprofile-partial-training), so code outside the trained paths loses
#   nothing. A 1 MB session parse is 6 to 17 % faster.
# - clang++: llvm-profdata merges the counts into pgo/krvxml.profdata, keyed
#   by function; functions without counts are optimized as usual. A 1 MB
#   session parse is 2 to 8 % faster, a session copy 10 to 14 %.
#
# Run with -P, this file does the renaming step (RAW and USE name the
# directories), or with CHECK set, checks that USE holds counts for each of
# SOURCES ('|' between them) under the name the library's compile looks for.
if(CMAKE_SCRIPT_MODE_FILE AND CHECK)
  string(REPLACE "|" ";" SOURCES "${SOURCES}")
  foreach(_s IN LISTS SOURCES)
    string(REPLACE "/" "#" _name "CMakeFiles/krvxml.dir/${_s}.gcda")
    if(NOT EXISTS "${USE}/${_name}")
      message(FATAL_ERROR "no counts for ${_s}: ${USE}/${_name} is missing")
    endif()
  endforeach()
  return()
endif()
if(CMAKE_SCRIPT_MODE_FILE)
  file(REMOVE_RECURSE ${USE})
  file(MAKE_DIRECTORY ${USE})
  file(GLOB _counts RELATIVE ${RAW} ${RAW}/*.gcda)
  if(NOT _counts)
    # For example a build path too long for the file names: the library is
    # then compiled as without a profile.
    message(WARNING "the training run left no counts in ${RAW}; building without a profile")
  endif()
  foreach(_f IN LISTS _counts)
    # Object paths are mangled into file names with '#' for '/'.
    string(REPLACE "krvxml_pgo_gen.dir#" "krvxml.dir#" _to ${_f})
    file(RENAME ${RAW}/${_f} ${USE}/${_to})
  endforeach()
  return()
endif()

set(_pgo ${CMAKE_BINARY_DIR}/pgo)
include(CheckCXXCompilerFlag)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Without partial training (g++ before 10), functions the training never
  # ran would be optimized for size: build without a profile instead.
  check_cxx_compiler_flag(-fprofile-partial-training KRVXML_HAVE_PARTIAL_TRAINING)
  if(NOT KRVXML_HAVE_PARTIAL_TRAINING)
    message(STATUS "krvxml: no -fprofile-partial-training, building without a profile")
    return()
  endif()
  # Count files are named after the object's path; relative to the build
  # tree where the compiler can (g++ 12), so that a deep build tree stays
  # within the longest file name.
  check_cxx_compiler_flag(-fprofile-prefix-path=/ KRVXML_HAVE_PROFILE_PREFIX)
  set(_prefix)
  if(KRVXML_HAVE_PROFILE_PREFIX)
    set(_prefix -fprofile-prefix-path=${CMAKE_BINARY_DIR})
  endif()
  set(_gen_flags -fprofile-generate -fprofile-update=single --param=profile-func-internal-id=1
    -fprofile-dir=${_pgo}/raw ${_prefix})
  set(_gen_link -fprofile-generate)
  set(_use_flags -fprofile-use -fprofile-dir=${_pgo}/use --param=profile-func-internal-id=1
    -fprofile-partial-training -Wno-missing-profile ${_prefix})
  set(_merge ${CMAKE_COMMAND} -DRAW=${_pgo}/raw -DUSE=${_pgo}/use -P ${CMAKE_CURRENT_LIST_FILE})
else()
  # The merge tool must read what this clang++ writes: the one of its
  # version, else the one beside it.
  string(REGEX MATCH "^[0-9]+" _major "${CMAKE_CXX_COMPILER_VERSION}")
  get_filename_component(_bin ${CMAKE_CXX_COMPILER} DIRECTORY)
  find_program(KRVXML_LLVM_PROFDATA NAMES llvm-profdata-${_major} llvm-profdata
    HINTS ${_bin} /usr/lib/llvm-${_major}/bin NO_DEFAULT_PATH)
  if(NOT KRVXML_LLVM_PROFDATA)
    message(STATUS "krvxml: no llvm-profdata for clang++ ${_major}, building without a profile")
    return()
  endif()
  set(_gen_flags -fprofile-generate=${_pgo}/raw)
  set(_gen_link -fprofile-generate=${_pgo}/raw)
  set(_use_flags -fprofile-use=${_pgo}/krvxml.profdata)
  set(_merge ${KRVXML_LLVM_PROFDATA} merge -o ${_pgo}/krvxml.profdata ${_pgo}/raw)
endif()

# With counts, the parser, the tree code (copies, insertion) and the record
# code gain from -O3 (its larger inlining limits, on the paths the counts
# mark hot): a 1 MB session parse 3 to 10 % and a session copy 8 to 16 %
# against -O2 with counts, where -O3 without counts gained nothing. The
# other sources stay at the build's level: printing did not gain. (With
# clang++ and counts, -O3 and -O2 measured alike.) The copy and the library
# must be compiled alike for the counts to fit; source properties hold for
# both.
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/xml/xml_parser.cpp
  ${PROJECT_SOURCE_DIR}/src/xml/xml_tree.cpp ${PROJECT_SOURCE_DIR}/src/xml/xml_node.cpp
  PROPERTIES COMPILE_OPTIONS -O3)

add_library(krvxml_pgo_gen SHARED ${KRVXML_SOURCES})
krvxml_library_settings(krvxml_pgo_gen)
set_target_properties(krvxml_pgo_gen PROPERTIES DEFINE_SYMBOL krvxml_EXPORTS)
target_compile_options(krvxml_pgo_gen PRIVATE ${_gen_flags})
target_link_options(krvxml_pgo_gen PRIVATE ${_gen_link})

add_executable(krvxml_pgo_train ${CMAKE_CURRENT_LIST_DIR}/pgo_train.cpp)
target_link_libraries(krvxml_pgo_train PRIVATE krvxml_pgo_gen)

# Counts merge into files that exist, so each training starts from none.
add_custom_command(OUTPUT ${_pgo}/profile.stamp
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${_pgo}/raw
  COMMAND krvxml_pgo_train
  COMMAND ${_merge}
  COMMAND ${CMAKE_COMMAND} -E touch ${_pgo}/profile.stamp
  DEPENDS krvxml_pgo_train ${CMAKE_CURRENT_LIST_FILE}
  COMMENT "Training run for the profile-guided build of krvxml"
  VERBATIM)
add_custom_target(krvxml_pgo_profile DEPENDS ${_pgo}/profile.stamp)

# The library's objects are compiled after the training. An edit of a
# library source recompiles that source with new counts; the others keep
# theirs, which still describe them. An edit of the training changes the
# library's compile line through this digest, so that all of it is compiled
# again with the new counts.
add_dependencies(krvxml krvxml_pgo_profile)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/pgo_train.cpp)
file(MD5 ${CMAKE_CURRENT_LIST_DIR}/pgo_train.cpp _training)
string(SUBSTRING ${_training} 0 12 _training)
target_compile_definitions(krvxml PRIVATE KRVXML_PGO_TRAINING=${_training})
target_compile_options(krvxml PRIVATE ${_use_flags})

# With names relative to the build tree, a test checks that every source of
# the library was compiled with counts: a change in how the compiler names
# them would otherwise only make the library slower.
if(KRVXML_BUILD_TESTS AND KRVXML_HAVE_PROFILE_PREFIX)
  string(REPLACE ";" "|" _sources "${KRVXML_SOURCES}")
  add_test(NAME Build.ProfileCountsForEverySource
    COMMAND ${CMAKE_COMMAND} -DCHECK=1 -DUSE=${_pgo}/use -DSOURCES=${_sources}
            -P ${CMAKE_CURRENT_LIST_FILE})
endif()

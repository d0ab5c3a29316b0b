# Precompiled headers, for a build from nothing: most of a compilation here is reading the standard library,
# jsoncpp and gtest again. Off unless asked for, because a compiler cache has no use for them.
#
# What a source forgets to include may so go unnoticed; clang-tidy reads the shipped sources without them.
option(CORVALENT_PRECOMPILE "Read the headers that most sources share only once" OFF)

set(SHARED_HEADERS
  <algorithm> <array> <atomic> <cerrno> <chrono> <cstdint> <cstring> <exception> <filesystem> <fstream>
  <functional> <map> <memory> <mutex> <optional> <set> <sstream> <string> <thread> <unordered_map> <utility>
  <vector> <json/value.h> <Poco/AutoPtr.h> <Poco/Format.h> <Poco/Message.h>)

# corvalent_precompile(TARGET HEADER…): what targets that are compiled with the same options, and at least the
# same definitions, may share.
function(corvalent_precompile target)
  if(CORVALENT_PRECOMPILE)
    target_precompile_headers(${target} PRIVATE ${ARGN})
  endif()
endfunction()

# corvalent_use_precompiled(TARGET OWNER): lets TARGET use what OWNER has read.
function(corvalent_use_precompiled target owner)
  if(CORVALENT_PRECOMPILE)
    target_precompile_headers(${target} REUSE_FROM ${owner})
  endif()
endfunction()

# The same for what is shipped. Not with gcc, which, optimising, warns of what it sees in the standard library when
# it does not read that from a system header.
function(corvalent_use_shipped_headers target)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    corvalent_use_precompiled(${target} shipped_headers)
  endif()
endfunction()

# Checks the layer order of src/: every quoted #include must name a header
# of the including file's own layer or of a lower one. Siblings of one rank
# (keeper, client, serve) do not include each other.
#   cmake -DSOURCE_DIR=<repo>/src -P layer_check.cmake

cmake_minimum_required(VERSION 3.25)

# Prefixes in match order (client/protocol before client) and their ranks.
set(layers platform cli/commands cli client/protocol client keeper serve)
set(rank_platform 0)
set(rank_cli 1)
set(rank_client/protocol 2)
set(rank_client 3)
set(rank_keeper 3)
set(rank_serve 3)
set(rank_cli/commands 4)
set(rank_main 5)

function(layer_of path out)
  foreach(layer ${layers})
    if(path MATCHES "^${layer}/")
      set(${out} ${layer} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  set(${out} main PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE sources RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/*.cpp ${SOURCE_DIR}/*.hpp)
set(violations "")
foreach(source ${sources})
  layer_of(${source} own)
  file(STRINGS ${SOURCE_DIR}/${source} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line ${lines})
    string(REGEX REPLACE "^[^\"]*\"([^\"]*)\".*$" "\\1" header "${line}")
    layer_of(${header} used)
    if(used STREQUAL own OR rank_${used} LESS rank_${own})
      continue()
    endif()
    string(APPEND violations "  ${source} (${own}) includes ${header} (${used})\n")
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "includes against the layer order platform -> cli -> client/protocol -> "
                      "keeper, client, serve -> cli/commands -> main:\n${violations}")
endif()
list(LENGTH sources count)
message(STATUS "layer order kept by ${count} files")

# Builds quillmere_lmdb, a static library of LMDB and our additions to its engine, with no symbol
# of it visible outside the shared library that links it.
set(QUILLMERE_LMDB_SOURCE_DIR "" CACHE PATH "Unpacked LMDB source; empty to fetch it")

set(lmdb_build_dir ${PROJECT_BINARY_DIR}/lmdb)
set(lmdb_engine_dir ${PROJECT_SOURCE_DIR}/src/kv/lmdb/engine)

# Sets lmdb_source_root. A change of the release in the script brings the new one.
function(fetch_lmdb)
  execute_process(COMMAND ${PROJECT_SOURCE_DIR}/tools/fetch_lmdb ${PROJECT_SOURCE_DIR}/.cache
                  OUTPUT_VARIABLE archive OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "Could not fetch the source of LMDB (see above)")
  endif()
  get_filename_component(name ${archive} NAME_WLE)
  set(root ${lmdb_build_dir}/${name})
  if(NOT EXISTS ${root})
    file(ARCHIVE_EXTRACT INPUT ${archive} DESTINATION ${root}.part)
    file(RENAME ${root}.part ${root})
  endif()
  set(lmdb_source_root ${root} PARENT_SCOPE)
endfunction()

set(lmdb_source_root ${QUILLMERE_LMDB_SOURCE_DIR})
if(NOT lmdb_source_root)
  fetch_lmdb()
endif()
file(GLOB_RECURSE lmdb_main_source ${lmdb_source_root}/mdb.c)
list(LENGTH lmdb_main_source lmdb_source_count)
if(NOT lmdb_source_count EQUAL 1)
  message(FATAL_ERROR "No single mdb.c below ${lmdb_source_root}")
endif()
get_filename_component(lmdb_source_dir ${lmdb_main_source} DIRECTORY)

include(${lmdb_engine_dir}/edits.cmake)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${lmdb_engine_dir}/edits.cmake
             ${PROJECT_SOURCE_DIR}/tools/fetch_lmdb)
foreach(file midl.c midl.h lmdb.h)
  configure_file(${lmdb_source_dir}/${file} ${lmdb_build_dir}/include/${file} COPYONLY)
endforeach()
edit_lmdb(${lmdb_source_dir}/mdb.c ${lmdb_build_dir}/include/mdb.c)

add_library(quillmere_lmdb STATIC ${lmdb_engine_dir}/engine.c ${lmdb_build_dir}/include/midl.c)
target_include_directories(quillmere_lmdb SYSTEM PUBLIC ${lmdb_build_dir}/include)
target_link_libraries(quillmere_lmdb PUBLIC Threads::Threads)
set_target_properties(quillmere_lmdb PROPERTIES C_EXTENSIONS ON)
set_property(SOURCE ${lmdb_engine_dir}/engine.c APPEND PROPERTY OBJECT_DEPENDS
             ${lmdb_build_dir}/include/mdb.c)
# A storage engine compiled without optimisation makes debug runs pointlessly slow.
target_compile_options(quillmere_lmdb PRIVATE $<$<CONFIG:Debug>:-O2>)
set_source_files_properties(${lmdb_build_dir}/include/midl.c PROPERTIES COMPILE_OPTIONS -w)
# Nodes lie on even addresses only and arrays run past their declared end, both by design of the
# page format. The reader table is shared with other processes through volatile fields, which the
# thread sanitizer cannot follow; the locks that order all else are seen through their functions.
if(QUILLMERE_SANITIZE MATCHES "undefined")
  target_compile_options(quillmere_lmdb PRIVATE
                         -fno-sanitize=alignment,bounds,object-size,pointer-overflow)
endif()
if(QUILLMERE_SANITIZE MATCHES "thread")
  target_compile_options(quillmere_lmdb PRIVATE -fno-sanitize=thread)
endif()

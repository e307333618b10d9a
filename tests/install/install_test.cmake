# Installs into a prefix of its own, moves it, and builds a program against it in two ways: with
# nothing but pkg-config, and with find_package. Both must run.
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/first)
file(RENAME ${WORK_DIR}/first ${WORK_DIR}/prefix)
set(libdir ${WORK_DIR}/prefix/${LIBDIR})
set(here ${CMAKE_CURRENT_LIST_DIR})

set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs quillmere OUTPUT_VARIABLE flags
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags)
run(${C_COMPILER} ${here}/consumer.c -o ${WORK_DIR}/with_pkg_config ${flags})
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir}
    ${WORK_DIR}/with_pkg_config ${WORK_DIR}/first-store)

run(${CMAKE_COMMAND} -S ${here} -B ${WORK_DIR}/with_cmake -DCMAKE_C_COMPILER=${C_COMPILER}
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/with_cmake)
run(${WORK_DIR}/with_cmake/consumer ${WORK_DIR}/second-store)

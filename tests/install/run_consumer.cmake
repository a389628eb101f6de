# One step of the installed-tree checks, run by CTest (tests/install/CMakeLists.txt):
#
#   STEP=install       install the runtime, devel and emutv components into PREFIX
#   STEP=ldd           every library the installed one needs resolves (nothing "not found")
#   STEP=find_package  build consumer/ with find_package against PREFIX, run it on the TV
#   STEP=pkg_config    build consumer/consumer.cpp with pkg-config's flags, run it on the TV
#
# "On the TV" is the emulated platform, preloaded (EMUTV) into the consumer, which knows
# nothing of it. EMULATOR runs a program of the target (qemu-arm for the cross build).
cmake_minimum_required(VERSION 3.22)
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  message("$ ${ARGN}\n${out}${err}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

# The consumer's lines on the emulated TV: the panel the emulated connector reports, a
# window placed and the output closed.
function(run_on_tv program)
  if(EMULATOR)
    run(${EMULATOR} -E LD_PRELOAD=${EMUTV} ${program})
  else()
    run(${CMAKE_COMMAND} -E env LD_PRELOAD=${EMUTV} ${program})
  endif()
  foreach(line "consumer: panel 3840x2160" "consumer: set_rect -> 0" "consumer: closed")
    string(FIND "${run_output}" "${line}\n" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "missing line: ${line}")
    endif()
  endforeach()
endfunction()

set(libdir ${PREFIX}/${LIBDIR})

if(STEP STREQUAL "install")
  file(REMOVE_RECURSE ${PREFIX})
  foreach(component runtime devel emutv)
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX} --component ${component})
  endforeach()
  file(READ ${libdir}/pkgconfig/ruvo_avsink_interface.pc pc)
  if(NOT pc MATCHES "prefix=\\\${pcfiledir}/")
    message(FATAL_ERROR "the pkg-config file does not find its prefix from its own place:\n${pc}")
  endif()

elseif(STEP STREQUAL "ldd")
  if(EMULATOR)
    run(${EMULATOR} ${LOADER} --list ${libdir}/libruvo_avsink_interface.so.1)
  else()
    run(ldd ${libdir}/libruvo_avsink_interface.so.1)
  endif()
  if(run_output MATCHES "not found")
    message(FATAL_ERROR "the installed library needs a library that is not there")
  endif()
  if(NOT run_output MATCHES "libhmx_pqmgr_client.so.1 => ${libdir}/libhmx_pqmgr_client.so.1")
    message(FATAL_ERROR "the picture-quality client does not resolve beside the library")
  endif()

elseif(STEP STREQUAL "find_package")
  set(build ${WORK}/find_package)
  file(REMOVE_RECURSE ${build})
  set(toolchain)
  if(TOOLCHAIN)
    set(toolchain -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
  endif()
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${build} -DCMAKE_PREFIX_PATH=${PREFIX} ${toolchain}
      -DCMAKE_CXX_COMPILER=${CXX})
  run(${CMAKE_COMMAND} --build ${build})
  run_on_tv(${build}/consumer)

elseif(STEP STREQUAL "pkg_config")
  set(build ${WORK}/pkg_config)
  file(REMOVE_RECURSE ${build})
  file(MAKE_DIRECTORY ${build})
  set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
  if(PKG_CONFIG_LIBDIR)
    set(ENV{PKG_CONFIG_LIBDIR} ${PKG_CONFIG_LIBDIR})
  endif()
  run(${PKG_CONFIG} --cflags --libs ruvo_avsink_interface)
  separate_arguments(flags UNIX_COMMAND "${run_output}")
  run(${CXX} -std=c++17 -Wall -Wextra -Werror -o ${build}/consumer ${SOURCE_DIR}/consumer.cpp ${flags}
      -Wl,-rpath,${libdir})
  run_on_tv(${build}/consumer)

else()
  message(FATAL_ERROR "unknown STEP '${STEP}'")
endif()

# One step of the installed-tree checks, run by CTest (tests/install/CMakeLists.txt):
#
#   STEP=install       install the runtime, devel and emutv components into PREFIX, and
#                      the gstreamer component when the plugin was built (PLUGIN=1)
#   STEP=ldd           every installed library resolves what it needs (nothing "not found")
#   STEP=gst_plugin    the installed plugin resolves the installed library, and
#                      gst-inspect-1.0 (GST_INSPECT) finds both elements in it
#   STEP=gst_meta      a decoder's side of the frame meta (consumer/frame_meta_consumer.cpp)
#                      built against the installed header and libruvo_gst_meta.a, and run
#   STEP=find_package  build consumer/ with find_package against PREFIX, run it on the TV
#   STEP=pkg_config    build consumer/consumer.cpp with pkg-config's flags, run it on the TV
#   STEP=emutv_alone   the emulator installed on its own prefix, the library (runtime
#                      component) on another: preloaded, the emulator brings the
#                      picture-quality client the library needs
#
# "On the TV" is the installed emulated platform, preloaded into the consumer, which knows
# nothing of it. Nothing runs with LD_LIBRARY_PATH: the installed tree finds its own
# libraries. EMULATOR runs a program of the target (qemu-arm for the cross build).
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

set(libdir ${PREFIX}/${LIBDIR})
set(emutv ${libdir}/emutv/libemutv.so)

# PROGRAM run without LD_LIBRARY_PATH, with PRELOAD preloaded when it is not empty.
function(run_clean preload)
  set(env)
  if(preload)
    set(env LD_PRELOAD=${preload})
  endif()
  if(EMULATOR)
    list(TRANSFORM env PREPEND "-E;")
    run(${EMULATOR} -U LD_LIBRARY_PATH ${env} ${ARGN})
  else()
    run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${env} ${ARGN})
  endif()
  set(run_output "${run_output}" PARENT_SCOPE)
endfunction()

# The libraries LIBRARY loads, as the loader resolves them (PRELOAD preloaded when not
# empty): none may be missing.
function(check_resolves library preload)
  if(EMULATOR)
    run_clean("${preload}" ${LOADER} --list ${library})
  else()
    run_clean("${preload}" ldd ${library})
  endif()
  if(run_output MATCHES "not found")
    message(FATAL_ERROR "${library} needs a library that is not there")
  endif()
  set(run_output "${run_output}" PARENT_SCOPE)
endfunction()

function(expect_resolved name at)
  if(NOT run_output MATCHES "${name} => ${at}/${name}")
    message(FATAL_ERROR "${name} does not resolve to ${at}")
  endif()
endfunction()

# consumer/consumer.cpp built into OUT with the flags pkg-config gives for the library
# installed in PREFIX_DIR; ARGN: more link flags.
function(build_with_pkg_config prefix_dir out)
  get_filename_component(dir ${out} DIRECTORY)
  file(REMOVE ${out})
  file(MAKE_DIRECTORY ${dir})
  set(ENV{PKG_CONFIG_PATH} ${prefix_dir}/${LIBDIR}/pkgconfig)
  if(PKG_CONFIG_LIBDIR)
    set(ENV{PKG_CONFIG_LIBDIR} ${PKG_CONFIG_LIBDIR})
  endif()
  run(${PKG_CONFIG} --cflags --libs ruvo_avsink_interface)
  separate_arguments(flags UNIX_COMMAND "${run_output}")
  run(${CXX} -std=c++17 -Wall -Wextra -Werror -o ${out} ${SOURCE_DIR}/consumer.cpp ${flags} ${ARGN})
endfunction()

# The consumer's lines on the emulated TV (the emulator EMULATED preloaded): the panel the
# emulated connector reports, a window placed and the output closed.
function(run_on_tv program emulated)
  run_clean(${emulated} ${program})
  foreach(line "consumer: panel 3840x2160" "consumer: set_rect -> 0" "consumer: closed")
    string(FIND "${run_output}" "${line}\n" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "missing line: ${line}")
    endif()
  endforeach()
endfunction()

if(STEP STREQUAL "install")
  file(REMOVE_RECURSE ${PREFIX})
  set(components runtime devel emutv)
  if(PLUGIN)
    list(APPEND components gstreamer)
  endif()
  foreach(component ${components})
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX} --component ${component})
  endforeach()
  file(READ ${libdir}/pkgconfig/ruvo_avsink_interface.pc pc)
  if(NOT pc MATCHES "prefix=\\\${pcfiledir}/")
    message(FATAL_ERROR "the pkg-config file does not find its prefix from its own place:\n${pc}")
  endif()

elseif(STEP STREQUAL "ldd")
  check_resolves(${libdir}/libruvo_avsink_interface.so.1 "")
  expect_resolved(libhmx_pqmgr_client.so.1 ${libdir})
  file(GLOB installed ${libdir}/emutv/*.so*)
  foreach(library ${installed})
    check_resolves(${library} "")
  endforeach()
  check_resolves(${emutv} "")
  expect_resolved(libhmx_pqmgr_client.so.1 ${libdir}/emutv)

elseif(STEP STREQUAL "gst_plugin")
  set(plugin_dir ${libdir}/gstreamer-1.0)
  check_resolves(${plugin_dir}/libgstruvo.so "")
  expect_resolved(libruvo_avsink_interface.so.1 ${plugin_dir}/..)
  # A registry of its own, so that nothing cached elsewhere answers for the installed file.
  foreach(element ruvovideosink ruvoaudiosink)
    run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH GST_PLUGIN_PATH=${plugin_dir}
        GST_REGISTRY=${WORK}/registry.bin ${GST_INSPECT} ${element})
    string(FIND "${run_output}" "${plugin_dir}/libgstruvo.so" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "${element} was not loaded from ${plugin_dir}")
    endif()
  endforeach()

elseif(STEP STREQUAL "gst_meta")
  set(out ${WORK}/gst_meta/frame_meta_consumer)
  file(REMOVE ${out})
  file(MAKE_DIRECTORY ${WORK}/gst_meta)
  run(${PKG_CONFIG} --cflags --libs gstreamer-1.0)
  separate_arguments(gst_flags UNIX_COMMAND "${run_output}")
  run(${CXX} -std=c++17 -Wall -Wextra -Werror -o ${out} ${SOURCE_DIR}/frame_meta_consumer.cpp -I${PREFIX}/include
      ${libdir}/libruvo_gst_meta.a ${gst_flags})
  run_clean("" ${out})
  if(NOT run_output STREQUAL "frame meta: RuvoFrameMetaAPI 1920x1080 profile 5\n")
    message(FATAL_ERROR "unexpected output: ${run_output}")
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
  run_on_tv(${build}/consumer ${emutv})

elseif(STEP STREQUAL "pkg_config")
  set(build ${WORK}/pkg_config)
  build_with_pkg_config(${PREFIX} ${build}/consumer -Wl,-rpath,${libdir})
  run_on_tv(${build}/consumer ${emutv})

elseif(STEP STREQUAL "emutv_alone")
  set(emutv_prefix ${WORK}/emutv_alone)
  set(emutv_dir ${emutv_prefix}/${LIBDIR}/emutv)
  set(runtime_prefix ${WORK}/runtime_alone)
  file(REMOVE_RECURSE ${emutv_prefix} ${runtime_prefix})
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${emutv_prefix} --component emutv)
  foreach(component runtime devel)
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${runtime_prefix} --component ${component})
  endforeach()
  # The linker reads the client from the emulator's directory; the program does not.
  set(consumer ${WORK}/emutv_alone_consumer)
  build_with_pkg_config(${runtime_prefix} ${consumer} -Wl,-rpath,${runtime_prefix}/${LIBDIR}
    -Wl,-rpath-link,${emutv_dir})
  # Without the emulator the library misses its picture-quality client ...
  if(EMULATOR)
    execute_process(COMMAND ${EMULATOR} -U LD_LIBRARY_PATH ${consumer} RESULT_VARIABLE rc
      OUTPUT_VARIABLE out ERROR_VARIABLE out)
  else()
    execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${consumer} RESULT_VARIABLE rc
      OUTPUT_VARIABLE out ERROR_VARIABLE out)
  endif()
  if(rc EQUAL 0 OR NOT out MATCHES "libhmx_pqmgr_client.so.1")
    message(FATAL_ERROR "without the emulator the consumer was expected not to load (${rc}):\n${out}")
  endif()
  # ... which the preloaded emulator brings from beside itself.
  check_resolves(${consumer} ${emutv_dir}/libemutv.so)
  expect_resolved(libhmx_pqmgr_client.so.1 ${emutv_dir})
  run_on_tv(${consumer} ${emutv_dir}/libemutv.so)

else()
  message(FATAL_ERROR "unknown STEP '${STEP}'")
endif()

# Installs the build tree into a scratch prefix, then configures, builds and
# runs a client that finds it with find_package(luAnaf CONFIG) and pkg-config.
file(REMOVE_RECURSE ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK}/prefix
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed")
endif()
foreach(f include/luAnaf/luAnaf.h lib/pkgconfig/luAnaf.pc lib/cmake/luAnaf/luAnafConfig.cmake)
  if(NOT EXISTS ${WORK}/prefix/${f})
    message(FATAL_ERROR "missing after install: ${f}")
  endif()
endforeach()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G Ninja
  -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_CXX_COMPILER=${CXX} RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configure of the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "build of the consumer failed")
endif()
execute_process(COMMAND ${WORK}/build/consumer ${WORK}/out.afxs RESULT_VARIABLE rc
  OUTPUT_VARIABLE out)
if(rc OR NOT out MATCHES "Lumoravel_XS_COP")
  message(FATAL_ERROR "consumer failed: ${out}")
endif()

# Installs the build tree into a fresh prefix under /tmp (never the default
# one), then checks that the installed tree serves its users from there:
#   1. a CMake client finds it with find_package(luAnaf CONFIG),
#   2. a client built with pkg-config's flags alone (no -std= is imposed),
#   3. the installed luafxs runs without LD_LIBRARY_PATH,
# and 2 and 3 again after the whole prefix was moved elsewhere.
# Usage: cmake -DBUILD_DIR=... -DSOURCE=... -DCXX=... -P run_consumer.cmake
string(RANDOM LENGTH 8 tag)
set(WORK /tmp/luanaf-install-${tag})
set(PREFIX ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc)
    file(REMOVE_RECURSE ${WORK})
    message(FATAL_ERROR "${what} failed (${rc}): ${out} ${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
foreach(f include/luAnaf/luAnaf.h lib/pkgconfig/luAnaf.pc lib/cmake/luAnaf/luAnafConfig.cmake)
  if(NOT EXISTS ${PREFIX}/${f})
    message(FATAL_ERROR "missing after install: ${f}")
  endif()
endforeach()
if(EXISTS ${PREFIX}/include/luAnaf/luIoFault.h OR EXISTS ${PREFIX}/include/luAnaf/lu_io_fault.h)
  message(FATAL_ERROR "the fault-injection hook was installed with the public headers")
endif()

# 1. find_package
run("configure of the CMake client" ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G Ninja
  -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX})
run("build of the CMake client" ${CMAKE_COMMAND} --build ${WORK}/build)
run("the CMake client" ${WORK}/build/consumer ${WORK}/out.afxs)

# 2 and 3, at the prefix and once it was moved.
function(check_prefix prefix label)
  set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
  run("pkg-config (${label})" pkg-config --cflags --libs luAnaf)
  string(STRIP "${out}" flags)
  if(flags MATCHES "-std=")
    message(FATAL_ERROR "luAnaf.pc imposes a language standard: ${flags}")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run("build of the pkg-config client (${label})" ${CXX} -std=c++20 ${SOURCE}/consumer.cpp ${flags}
    -Wl,-rpath,${prefix}/lib -o ${WORK}/pc-consumer)
  run("the pkg-config client (${label})" ${WORK}/pc-consumer ${WORK}/pc-${label}.afxs)
  if(EXISTS ${prefix}/bin/luafxs)
    unset(ENV{LD_LIBRARY_PATH})
    run("the installed luafxs (${label})" ${prefix}/bin/luafxs validate ${WORK}/pc-${label}.afxs)
  endif()
endfunction()

check_prefix(${PREFIX} "installed")
file(RENAME ${PREFIX} ${WORK}/moved)
check_prefix(${WORK}/moved "moved")
file(REMOVE_RECURSE ${WORK})

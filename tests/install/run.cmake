# Installs the build tree into a fresh prefix, builds tests/install/consumer.cpp
# against it with find_package(framealign 1.3), aligns a simulator capture
# with it, and checks its corners against the installed framealign's.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -P run.cmake
file(REMOVE_RECURSE "${WORK_DIR}")
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGV}\n${out}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()
set(prefix "${WORK_DIR}/prefix")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
foreach(installed bin/framealign bin/framealign-sim include/framealign/framealign.h
        include/framealign/version.h include/framealign/video.h lib/libframealign.a lib/libframealign.so.1.3
        share/man/man1/framealign.1 share/man/man1/framealign-batch.1 share/man/man1/framealign-sim.1
        share/man/man1/framealign-ref.1 bin/framealign-ref
        share/doc/framealign/examples/dask_align.py share/doc/framealign/examples/parallel.sh
        share/doc/framealign/examples/framealign-batch.sbatch)
  if(NOT EXISTS "${prefix}/${installed}")
    message(FATAL_ERROR "not installed: ${installed}")
  endif()
endforeach()
# The man pages hold the program's options and the exit statuses; completion
# offers the batch's options from its own --help.
file(READ "${prefix}/share/man/man1/framealign-batch.1" page)
if(NOT page MATCHES "Exit status: 0 every capture" OR NOT page MATCHES "A folder <id> per capture")
  message(FATAL_ERROR "framealign-batch.1 lacks its options or exit statuses:\n${page}")
endif()
run(bash -c "source '${prefix}/share/bash-completion/completions/framealign-batch' && COMP_WORDS=(x --ref) \
COMP_CWORD=1 && _framealign '${prefix}/bin/framealign-batch' && echo \${COMPREPLY[*]}")
if(NOT last_output STREQUAL "--reference-file --reference-frames --refine\n")
  message(FATAL_ERROR "completion of --ref offered: ${last_output}")
endif()
file(GLOB_RECURSE internal "${prefix}/include/align/*" "${prefix}/include/io/*")
if(internal)
  message(FATAL_ERROR "internal headers installed: ${internal}")
endif()
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" "-DCMAKE_PREFIX_PATH=${prefix}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")

set(sample "${WORK_DIR}/sample")
run("${prefix}/bin/framealign-sim" --out "${sample}" --width 640 --height 360
    --capture-width 960 --capture-height 720 --seed 3)
run("${WORK_DIR}/build/consumer" "${sample}/capture.jpg" "${sample}/reference.yuv" 640 360)
set(found "${last_output}")
run("${prefix}/bin/framealign" --input-file "${sample}/capture.jpg"
    --reference-file "${sample}/reference.yuv" --width 640 --height 360 --result-folder "${sample}/out")
string(REGEX MATCH "^[0-9]+" slot "${found}")
file(READ "${sample}/out/pts_${slot}.txt" corners)
if(NOT found STREQUAL "${slot} ${corners}")
  message(FATAL_ERROR "consumer found ${found}, framealign ${corners} in slot ${slot}")
endif()

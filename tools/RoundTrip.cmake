# Converts ${IN} (NAME.raw with NAME.json; empty: a small made-up volume) to a
# volume file and back with ${VX} in ${DIR}, and checks that the voxels come
# back byte for byte and that `vx info` reports the same for all three forms.
file(MAKE_DIRECTORY ${DIR})
if(IN STREQUAL "")
  # 3x2x2 voxels with negative and large values (CMake strings hold no zero byte).
  string(ASCII 1 2 3 4 5 255 6 128 127 127 9 9 7 8 255 255 33 44 254 255 1 200 1 1 voxels)
  file(WRITE ${DIR}/small.raw "${voxels}")
  file(WRITE ${DIR}/small.json "{\"dims\": [3, 2, 2], \"spacing_mm\": [0.957, 0.5, 1.5], \"origin_mm\": [-90, -91.5, 12], \"rescale_slope\": 2, \"rescale_intercept\": -1024}")
  set(IN ${DIR}/small.raw)
endif()

function(run)
  execute_process(COMMAND ${VX} ${ARGN} WORKING_DIRECTORY ${DIR}
                  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "vx ${ARGN}: exit status ${status}\n${out}${err}")
  endif()
  # Drop the first line, which names the file.
  string(REGEX REPLACE "^[^\n]*\n" "" out "${out}")
  set(out "${out}" PARENT_SCOPE)
endfunction()

run(convert --in ${IN} --out ${DIR}/there.vxv)
run(convert --in ${DIR}/there.vxv --out ${DIR}/back)
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${IN} ${DIR}/back.raw
                RESULT_VARIABLE differ)
if(differ)
  message(FATAL_ERROR "${IN} and ${DIR}/back.raw differ")
endif()
run(info ${IN})
set(first "${out}")
foreach(f ${DIR}/there.vxv ${DIR}/back.json)
  run(info ${f})
  if(NOT out STREQUAL first)
    message(FATAL_ERROR "vx info differs for ${f}:\n${out}\nexpected:\n${first}")
  endif()
endforeach()

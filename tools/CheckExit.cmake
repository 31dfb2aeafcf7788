# Runs ${VX} with the |-separated ${ARGS} in ${DIR} and checks that the exit
# status is exactly ${STATUS}, that stderr has ${LINES} lines (-1: any number)
# and that stdout + stderr match ${REGEX}.
file(MAKE_DIRECTORY ${DIR})

# Volumes for the tests: a good 4x4x2 one (every voxel 0x4141), a raw file of the
# wrong size and a sidecar cut off in the middle.
string(REPEAT "A" 64 voxels)
file(WRITE ${DIR}/good.json "{\"dims\": [4, 4, 2], \"spacing_mm\": [1, 1, 2.5],\n \"origin_mm\": [-2, -2, 0], \"rescale_slope\": 1, \"rescale_intercept\": -1024}\n")
file(WRITE ${DIR}/good.raw "${voxels}")
string(REPEAT "B" 1000 bytes)
file(WRITE ${DIR}/short.json "{\"dims\": [10, 10, 10], \"spacing_mm\": [1, 1, 1]}")
file(WRITE ${DIR}/short.raw "${bytes}")
file(WRITE ${DIR}/truncated.json "{\"dims\": [10, 10")
file(WRITE ${DIR}/truncated.raw "")
# Volume files: the magic alone, and a wrong magic.
file(WRITE ${DIR}/magic_only.vxv "VX_VolDat2")
file(WRITE ${DIR}/not_vx.vxv "VX_VolDat3 and more bytes")

string(REPLACE "|" ";" args "${ARGS}")
execute_process(COMMAND ${VX} ${args}
                WORKING_DIRECTORY ${DIR}
                RESULT_VARIABLE status
                OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
if(NOT status STREQUAL "${STATUS}")
  message(FATAL_ERROR "exit status ${status}, expected ${STATUS}\nstdout: ${out}\nstderr: ${err}")
endif()
if(NOT LINES EQUAL -1)
  string(REGEX MATCHALL "\n" newlines "${err}")
  list(LENGTH newlines n)
  if(NOT n EQUAL LINES)
    message(FATAL_ERROR "stderr has ${n} lines, expected ${LINES}:\n${err}")
  endif()
endif()
if(NOT "${out}${err}" MATCHES "${REGEX}")
  message(FATAL_ERROR "output does not match '${REGEX}'\nstdout: ${out}\nstderr: ${err}")
endif()

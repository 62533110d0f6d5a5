# cmake -DPROTOC=... -DPROTO=... -DIN=... -DOUT=... -P EncodeModel.cmake
# Encodes one text model; leaves no output behind on failure, so a broken
# model is not mistaken for an up-to-date one by the next build.
get_filename_component(proto_dir ${PROTO} DIRECTORY)
get_filename_component(out_dir ${OUT} DIRECTORY)
file(MAKE_DIRECTORY ${out_dir})
execute_process(
  COMMAND ${PROTOC} --deterministic_output --encode=VorakModel -I ${proto_dir} ${PROTO}
  INPUT_FILE ${IN}
  OUTPUT_FILE ${OUT}.tmp
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  file(REMOVE ${OUT}.tmp)
  message(FATAL_ERROR "cannot encode ${IN}")
endif()
file(RENAME ${OUT}.tmp ${OUT})

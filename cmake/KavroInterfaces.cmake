# Adaptor and proxy headers are generated from the interface XML into the build tree only.
set(KAVRO_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)

function(kavro_generate_interface service)
  set(xml ${PROJECT_SOURCE_DIR}/kavro/interfaces/kavro.${service}.xml)
  set(adaptor ${KAVRO_GENERATED_DIR}/kavro/generated/${service}_adaptor.h)
  set(proxy ${KAVRO_GENERATED_DIR}/kavro/generated/${service}_proxy.h)
  add_custom_command(
    OUTPUT ${adaptor} ${proxy}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${KAVRO_GENERATED_DIR}/kavro/generated
    COMMAND SDBusCpp::sdbus-c++-xml2cpp ${xml} --adaptor=${adaptor} --proxy=${proxy}
    DEPENDS ${xml}
    COMMENT "Generating D-Bus adaptor and proxy for ${service}")
  set(KAVRO_GENERATED_HEADERS ${KAVRO_GENERATED_HEADERS} ${adaptor} ${proxy} PARENT_SCOPE)
endfunction()

# kelvane_dbus_glue(<target> <xml>)
#
# Generates sdbus-c++ proxy and adaptor headers from a D-Bus interface
# description at build time, into the build tree only:
#   <build>/generated/idl/<xml name>_proxy.h and <xml name>_adaptor.h
# and makes <target> depend on them and see them as "idl/<name>_proxy.h".
function(kelvane_dbus_glue target xml)
    get_filename_component(xml_path ${xml} ABSOLUTE)
    get_filename_component(name ${xml} NAME_WE)
    set(out_dir ${CMAKE_BINARY_DIR}/generated/idl)
    set(proxy ${out_dir}/${name}_proxy.h)
    set(adaptor ${out_dir}/${name}_adaptor.h)
    add_custom_command(OUTPUT ${proxy} ${adaptor}
                       COMMAND ${CMAKE_COMMAND} -E make_directory ${out_dir}
                       COMMAND SDBusCpp::sdbus-c++-xml2cpp ${xml_path} --proxy=${proxy} --adaptor=${adaptor}
                       DEPENDS ${xml_path}
                       COMMENT "Generating D-Bus glue for ${name}"
                       VERBATIM)
    target_sources(${target} PRIVATE ${proxy} ${adaptor})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY")
        message(FATAL_ERROR "kelvane_dbus_glue: ${target} must not be an INTERFACE library")
    endif()
    target_include_directories(${target} PUBLIC ${CMAKE_BINARY_DIR}/generated)
endfunction()

# Finds the headers and libraries of a set's services, and defines a target for each, for a build of the plug-in by
# itself. MIRADO_SET is the folder that contains them: the root of the set's SDK, or that of the package mirado-dev.
# docs/porting.md describes what each service must provide.
#
# If a header or a library has another name on the set, give it as -DMIRADO_VCONF_HEADERS=FOLDER or
# -DMIRADO_VCONF_LIBRARY=FILE, here for the service vconf.
set(MIRADO_SET "" CACHE PATH "The folder with the set's headers and libraries")
if(NOT IS_DIRECTORY "${MIRADO_SET}")
  message(FATAL_ERROR "MIRADO_SET is '${MIRADO_SET}', which is not a folder. "
                      "Give the folder with the set's headers and libraries, as -DMIRADO_SET=DIR")
endif()

foreach(service_and_header dlog:dlog.h handler:pp_base_message_handler.h panelbase:panelbase.h ppapi:ppapi/cpp/module.h
                           prefdeck:prefdeck.h system_info:system_info.h vconf:vconf.h)
  string(REPLACE ":" ";" pair ${service_and_header})
  list(GET pair 0 service)
  list(GET pair 1 header)
  string(TOUPPER MIRADO_${service} name)
  find_path(${name}_HEADERS ${header} REQUIRED PATHS ${MIRADO_SET} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH
            PATH_SUFFIXES include usr/include include/${service} usr/include/${service})
  find_library(${name}_LIBRARY ${service} REQUIRED PATHS ${MIRADO_SET} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH
               PATH_SUFFIXES lib usr/lib lib/${CMAKE_LIBRARY_ARCHITECTURE} usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
  add_library(${service} UNKNOWN IMPORTED)
  set_target_properties(${service} PROPERTIES IMPORTED_LOCATION ${${name}_LIBRARY}
                                              INTERFACE_INCLUDE_DIRECTORIES ${${name}_HEADERS})
endforeach()

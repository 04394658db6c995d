# orb_objects(NAME SOURCE...): the objects of one product folder. They end up
# together in orb_sdk_core, so folders may refer to each other's symbols; what
# they may include is script/lint's business.
function(orb_objects name)
  add_library(${name} OBJECT ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
endfunction()

# orb_message_objects(NAME SOURCE...): objects whose sources include the generated messages.
# Here against the lite code; `orbctl sim` builds the same sources against the full code.
# Sources that are listed elsewhere do not find these headers.
function(orb_message_objects name)
  orb_objects(${name} ${ARGN})
  target_link_libraries(${name} PUBLIC orb_proto_lite)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  set_property(GLOBAL APPEND PROPERTY ORB_MESSAGE_SOURCES ${ARGN})
endfunction()

# orb_objects(NAME SOURCE...): the objects of one product folder. They end up
# together in orb_sdk_core, so folders may refer to each other's symbols; what
# they may include is script/lint's business.
function(orb_objects name)
  add_library(${name} OBJECT ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
endfunction()

# Generated protobuf code in two flavours from the same schemas: lite for the
# library, full for the tool. One process links one of them, never both: lite
# code runs on either runtime, and goes on the full one in a program that has
# the property ORB_FULL_PROTOBUF.
find_package(Protobuf 3.21 REQUIRED)
# Here, so that its target is known in every folder.
find_package(nanopb REQUIRED)

add_custom_target(orb_generated)

# orb_proto_library(TARGET lite|full FILE.proto...)
function(orb_proto_library target flavour)
  set(out ${CMAKE_BINARY_DIR}/gen/${target})
  file(MAKE_DIRECTORY ${out}/proto)
  set(prefix "")
  if(flavour STREQUAL "lite")
    set(prefix "lite:")
  endif()
  set(sources)
  foreach(file ${ARGN})
    get_filename_component(stem ${file} NAME_WE)
    add_custom_command(
      OUTPUT ${out}/proto/${stem}.pb.cc ${out}/proto/${stem}.pb.h
      COMMAND protobuf::protoc --cpp_out=${prefix}${out} -I ${PROJECT_SOURCE_DIR}
              ${PROJECT_SOURCE_DIR}/proto/${file}
      DEPENDS ${PROJECT_SOURCE_DIR}/proto/${file}
      COMMENT "protoc (${flavour}) ${file}")
    list(APPEND sources ${out}/proto/${stem}.pb.cc ${out}/proto/${stem}.pb.h)
  endforeach()
  add_library(${target} STATIC ${sources})
  # Alone it makes the headers of all, for tools that only read the sources.
  add_custom_target(${target}_sources DEPENDS ${sources})
  add_dependencies(orb_generated ${target}_sources)
  target_compile_options(${target} PRIVATE -Wno-error -w)
  target_include_directories(${target} SYSTEM PUBLIC ${out})
  if(flavour STREQUAL "lite")
    set(full $<BOOL:$<TARGET_PROPERTY:ORB_FULL_PROTOBUF>>)
    target_link_libraries(${target} PUBLIC
      $<IF:${full},protobuf::libprotobuf,protobuf::libprotobuf-lite>)
  else()
    target_link_libraries(${target} PUBLIC protobuf::libprotobuf)
  endif()
endfunction()

# Debian's android-lib* packages as imported targets orb::log, orb::utils, orb::cutils, orb::base.
#
# /usr/include/android also holds another library's <openssl/...>, so only the
# folders that are meant go on the include path, through a directory of links.
# The shared objects lie where the loader does not look: targets that link
# these carry the folder in their run path, in the build tree and installed.
set(ORB_ANDROID_INCLUDE ${CMAKE_BINARY_DIR}/android_include)
file(MAKE_DIRECTORY ${ORB_ANDROID_INCLUDE})
foreach(folder android log cutils utils android-base system)
  if(NOT EXISTS /usr/include/android/${folder})
    message(FATAL_ERROR "/usr/include/android/${folder} is missing: run script/setup")
  endif()
  file(CREATE_LINK /usr/include/android/${folder} ${ORB_ANDROID_INCLUDE}/${folder} SYMBOLIC)
endforeach()

set(ORB_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
list(APPEND CMAKE_BUILD_RPATH ${ORB_ANDROID_LIBDIR})
list(APPEND CMAKE_INSTALL_RPATH ${ORB_ANDROID_LIBDIR} "$ORIGIN" "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

foreach(name log utils cutils base)
  add_library(orb_android_${name} SHARED IMPORTED GLOBAL)
  set_target_properties(orb_android_${name} PROPERTIES
    IMPORTED_LOCATION ${ORB_ANDROID_LIBDIR}/lib${name}.so
    INTERFACE_INCLUDE_DIRECTORIES ${ORB_ANDROID_INCLUDE}
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${ORB_ANDROID_INCLUDE})
  add_library(orb::${name} ALIAS orb_android_${name})
endforeach()
# The libraries need each other, and the linker does not look in their folder.
add_link_options(-Wl,-rpath-link,${ORB_ANDROID_LIBDIR})

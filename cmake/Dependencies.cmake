# External dependencies, each behind an imported target so that consumers of
# the library link exactly what they need.
include(GNUInstallDirs)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

if(NOT TARGET talvoem::jsoncpp)
  pkg_check_modules(TALVOEM_JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
  add_library(talvoem::jsoncpp ALIAS PkgConfig::TALVOEM_JSONCPP)
endif()

# Debian ships the real Android log library under a private directory:
# headers in /usr/include/android, the library in /usr/lib/<multiarch>/android.
if(NOT TARGET talvoem::liblog)
  find_path(TALVOEM_LIBLOG_INCLUDE_DIR android/log.h
            PATHS /usr/include/android NO_CMAKE_FIND_ROOT_PATH)
  find_library(TALVOEM_LIBLOG_LIBRARY log
               PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android
               NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(NOT TALVOEM_LIBLOG_INCLUDE_DIR OR NOT TALVOEM_LIBLOG_LIBRARY)
    message(FATAL_ERROR "Android liblog not found: run scripts/deps (package android-liblog-dev)")
  endif()
  add_library(talvoem::liblog UNKNOWN IMPORTED)
  get_filename_component(_liblog_dir ${TALVOEM_LIBLOG_LIBRARY} DIRECTORY)
  set_target_properties(talvoem::liblog PROPERTIES
    IMPORTED_LOCATION ${TALVOEM_LIBLOG_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${TALVOEM_LIBLOG_INCLUDE_DIR}
    # The library sits outside the loader's default path.
    INTERFACE_LINK_OPTIONS "LINKER:-rpath,${_liblog_dir}")
endif()

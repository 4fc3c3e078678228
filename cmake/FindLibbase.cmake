# The Android base library as Debian packages it: a private library folder per architecture
# (CMAKE_LIBRARY_ARCHITECTURE is that of the build's target, so a cross build finds its own) and
# headers that are the same for all. Defines Libbase::Libbase.
find_library(
    LIBBASE_LIBRARY base
    PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android
    NO_DEFAULT_PATH)
find_path(
    LIBBASE_INCLUDE_DIR android-base/logging.h
    PATHS /usr/include/android
    NO_DEFAULT_PATH)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(
    Libbase
    REQUIRED_VARS LIBBASE_LIBRARY LIBBASE_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "install android-libbase-dev for ${CMAKE_LIBRARY_ARCHITECTURE}")

if(Libbase_FOUND AND NOT TARGET Libbase::Libbase)
    add_library(Libbase::Libbase UNKNOWN IMPORTED)
    get_filename_component(libbase_folder ${LIBBASE_LIBRARY} DIRECTORY)
    set_target_properties(
        Libbase::Libbase
        PROPERTIES IMPORTED_LOCATION ${LIBBASE_LIBRARY}
                   INTERFACE_INCLUDE_DIRECTORIES ${LIBBASE_INCLUDE_DIR}
                   # libbase needs liblog, which lies in the same private folder.
                   INTERFACE_LINK_OPTIONS "-Wl,-rpath-link,${libbase_folder}")
endif()
mark_as_advanced(LIBBASE_LIBRARY LIBBASE_INCLUDE_DIR)

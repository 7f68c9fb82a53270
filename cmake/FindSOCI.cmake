# Debian's SOCI comes without a CMake package. The targets are called as in SOCI's own.
find_package(PostgreSQL QUIET)  # the backend's header includes libpq's
find_package(SQLite3 QUIET)
find_path(SOCI_INCLUDE_DIR soci/soci.h)
find_path(SOCI_BOOST_INCLUDE_DIR boost/version.hpp)  # SOCI's headers include Boost's
mark_as_advanced(SOCI_INCLUDE_DIR SOCI_BOOST_INCLUDE_DIR)
foreach(part core sqlite3 postgresql)
  set(soci_name soci_${part})
  if(LQ_SANITIZE MATCHES "undefined")  # it asks for type information that the shared libraries keep to themselves
    set(soci_name libsoci_${part}.a)
  endif()
  find_library(SOCI_${part}_LIBRARY ${soci_name})
  mark_as_advanced(SOCI_${part}_LIBRARY)
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SOCI
  REQUIRED_VARS SOCI_core_LIBRARY SOCI_sqlite3_LIBRARY SOCI_postgresql_LIBRARY SOCI_INCLUDE_DIR SOCI_BOOST_INCLUDE_DIR
                PostgreSQL_INCLUDE_DIRS SQLite3_INCLUDE_DIRS
  REASON_FAILURE_MESSAGE "Install the packages libsoci-dev, libboost-dev, libpq-dev and libsqlite3-dev.")

if(SOCI_FOUND)
  foreach(part core sqlite3 postgresql)
    if(NOT TARGET SOCI::soci_${part})
      add_library(SOCI::soci_${part} UNKNOWN IMPORTED)
      set_target_properties(SOCI::soci_${part} PROPERTIES IMPORTED_LOCATION ${SOCI_${part}_LIBRARY})
    endif()
  endforeach()
  target_include_directories(SOCI::soci_core INTERFACE ${SOCI_INCLUDE_DIR} ${SOCI_BOOST_INCLUDE_DIR})
  target_link_libraries(SOCI::soci_sqlite3 INTERFACE SOCI::soci_core SQLite::SQLite3)
  target_link_libraries(SOCI::soci_postgresql INTERFACE SOCI::soci_core PostgreSQL::PostgreSQL)
endif()

# The library's side of the wire: RemoteBookServer and the client configuration, built into the
# library itself so that MVInit("host") reaches a daemon.
target_sources(mvcore_core PRIVATE
  ${CMAKE_CURRENT_SOURCE_DIR}/client_config.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/remote_link.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/remote_book_server.cpp)
target_link_libraries(mvcore_core PUBLIC mvcore_rpc_wire)

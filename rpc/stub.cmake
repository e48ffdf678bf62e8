# The daemon's side of the wire: the BookServer stub over a server session, the gate that hands
# out sessions, and bookserverd's options and server loop (the executable is in tools/).
find_package(Threads REQUIRED)
add_library(mvcore_rpc_stub STATIC book_server_stub.cpp gate.cpp daemon.cpp)
target_link_libraries(mvcore_rpc_stub PUBLIC mvcore_core mvcore_rpc_wire Threads::Threads
                                      PRIVATE mvcore_warnings)

# The wire between the library's RemoteBookServer and bookserverd.
#
# Every server method travels as one `call`: the method's number in the interface table and its
# arguments, each in the shape its kind in src/frame/server_methods.h gives it. Both ends check
# every call against that table: a number that is no method, or arguments of another count or
# shape, are refused and never misread. Texts travel as UTF-16LE bytes.
@0xd12d3c3d9fdb0cd5;

# One row of a result: its tagged column texts.
struct Row {
  elements @0 :List(Data);
}

# One argument. `absent` stands for a null pointer, and for an out-array the server left empty.
struct Arg {
  union {
    absent @0 :Void;
    int @1 :Int32;
    long @2 :Int64;
    real @3 :Float64;
    text @4 :Data;
    texts @5 :List(Data);
    ints @6 :List(Int32);
    bytes @7 :Data;
  }
}

# What a client reaches first. A daemon that wants no token logs anyone on. `wire` is the
# format of this schema and `methods` the signature of the method table the client was built
# with; a daemon that speaks otherwise answers its own two and no server. (A client from before
# the method table sends neither and is refused with an exception that says why.)
interface Gate {
  login @0 (token :Text, wire :UInt32, methods :UInt64)
      -> (server :BookServer, wire :UInt32, methods :UInt64);
}

interface BookServer {
  # One method of the table. The answer's `args` are the call's arguments as the method left
  # them (in-only ones travel back as `absent`). A method that opens a result or reads rows
  # answers up to `rows` of its rows at once in `rows`.
  call @0 (method :Int32, args :List(Arg), rows :UInt32)
      -> (status :Int32, args :List(Arg), rows :List(Row));
}

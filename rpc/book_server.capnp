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

  # The session's file service: the folders this session has opened with OpenNetShare, until
  # its CloseNetShare, by the paths OpenNetShare answered.
  files @1 () -> (files :Files);
}

# One entry of a folder, or what stat tells of a path. Times are POSIX seconds.
struct FileEntry {
  name @0 :Text;
  isDirectory @1 :Bool;
  isLink @2 :Bool;
  readOnly @3 :Bool;
  size @4 :UInt64;
  lastWrite @5 :Int64;
}

# File operations on the daemon's disk. Paths are UTF-8 text of the form OpenNetShare answers,
# "\\<server>\<share>\...". Every answer carries `error`: 0, or the Linux errno value of the
# failure (EACCES for a path outside the session's open shares, EINVAL for a name that is not
# allowed, and what the file system said otherwise).
interface Files {
  stat @0 (path :Text) -> (error :Int32, entry :FileEntry);
  list @1 (path :Text) -> (error :Int32, entries :List(FileEntry));
  openRead @2 (path :Text) -> (error :Int32, entry :FileEntry, reader :FileReader);
  # The bytes land under a temporary name and take the path's name on commit.
  openWrite @3 (path :Text, failIfExists :Bool) -> (error :Int32, writer :FileWriter);
  copy @4 (from :Text, to :Text, failIfExists :Bool) -> (error :Int32);
  setTimes @5 (path :Text, lastWrite :Int64) -> (error :Int32);
  makeWritable @6 (path :Text) -> (error :Int32);
  createDirectory @7 (path :Text) -> (error :Int32);
  removeDirectory @8 (path :Text) -> (error :Int32);
  deleteFile @9 (path :Text) -> (error :Int32);
  rename @10 (from :Text, to :Text) -> (error :Int32);
}

interface FileReader {
  # The next bytes of the file, at most `size`; fewer only at its end.
  read @0 (size :UInt32) -> (error :Int32, data :Data);
}

interface FileWriter {
  write @0 (data :Data) -> stream;
  # The first failure of a write, or of giving the file its time and name.
  commit @1 (lastWrite :Int64) -> (error :Int32);
}

# The wire between the library's RemoteBookServer and bookserverd.
#
# BookServer mirrors the server interface method by method: a method's ordinal is its number in
# the interface table, and the numbers that are not ours (the object's own 0 to 2, and the ones
# the library never calls) hold placeholders that answer nothing. Texts travel as UTF-16LE
# bytes, rows as lists of such texts, blocks as bytes. Every result carries the method's status;
# out-parameters travel both ways, so that a method that leaves one alone hands back what it got.
@0xd12d3c3d9fdb0cd5;

# One row of a result: its tagged column texts.
struct Row {
  elements @0 :List(Data);
}

# A block of bytes, or the answer that holds no array.
struct Block {
  present @0 :Bool;
  data @1 :Data;
}

# A variant the server fills: nothing, an array of texts, or an array of 32-bit integers.
struct Value {
  union {
    empty @0 :Void;
    texts @1 :List(Data);
    ints @2 :List(Int32);
  }
}

# What a client reaches first. A daemon that wants no token logs anyone on.
interface Gate {
  login @0 (token :Text) -> (server :BookServer);
}

interface BookServer {
  queryInterface @0 () -> ();
  addRef @1 () -> ();
  release @2 () -> ();
  unused3 @3 () -> ();
  unused4 @4 () -> ();
  unused5 @5 () -> ();
  unused6 @6 () -> ();
  unused7 @7 () -> ();
  deleteDatabase @8 (dbName :Data, option :Data) -> (status :Int32);
  copyDatabase @9 (srcDb :Data, srcOption :Data, dstDb :Data, dstOption :Data, kind :Int32) -> (status :Int32);
  openDatabase @10 (dbName :Data, mode :Int32) -> (status :Int32, out :Int32);
  unused11 @11 () -> ();
  unused12 @12 () -> ();
  unused13 @13 () -> ();
  unused14 @14 () -> ();
  unused15 @15 () -> ();
  createTable @16 (dbName :Data, tableName :Data, tableKind :Int32) -> (status :Int32);
  unused17 @17 () -> ();
  unused18 @18 () -> ();
  addRecord @19 (dbName :Data, record :List(Data), recordCount :Int32) -> (status :Int32, newIndex :Int32);
  updateRecord @20 (dbName :Data, record :List(Data), recordCount :Int32, tIndex :Int32) -> (status :Int32, tIndex :Int32);
  unused21 @21 () -> ();
  unused22 @22 () -> ();
  unused23 @23 () -> ();
  executeQuery @24 (dbName :Data, tableName :Data, sql :Data, flag :Int32, prefetch :UInt32) -> (status :Int32, rowCount :Int32, handle :Data, rows :List(Row));
  getRecords @25 (dbName :Data, handle :Data, rowIndex :Int32, count :UInt32) -> (status :Int32, rows :List(Row));
  downLoadData @26 (dbName :Data, handle :Data, columnName :Data, rowIndex :Int32, blockNo :Int32, blockSize :Int32) -> (status :Int32, block :Block, isEnd :Int32, bytes :Int32);
  unused27 @27 () -> ();
  unused28 @28 () -> ();
  carryingInfoBook @29 (dbName :Data, first :Int32, second :Int32) -> (status :Int32);
  setBookUpdateCounter @30 (dbName :Data) -> (status :Int32);
  setMutex @31 (name :Data, op :Int32) -> (status :Int32);
  unused32 @32 () -> ();
  setUserAdmin @33 (first :Data, second :Data, third :Int32) -> (status :Int32);
  getLoginUsers @34 () -> (status :Int32, list :Value, count :Int32);
  getConnect @35 (first :Int32, second :Int32) -> (status :Int32, first :Int32, second :Int32);
  unused36 @36 () -> ();
  closeDatabase @37 (dbName :Data) -> (status :Int32);
  getBookUpdateCounter @38 (dbName :Data, block16 :Data, counter :Int32) -> (status :Int32, block16 :Data, counter :Int32);
  tagUpdateCounter @39 (dbName :Data, tagIndex :Int32, op :Int32, block16 :Data, counter :Int32) -> (status :Int32, block16 :Data, counter :Int32);
  upLoadData @40 (record :List(Data), blockNo :Int32, bytes :Int32, block :Block, isLast :Int32) -> (status :Int32);
  getServerFreeSpace @41 (freeSpace :Int32) -> (status :Int32, freeSpace :Int32);
  deleteRecord @42 (dbName :Data, handle :Data, tIndex :Int32) -> (status :Int32);
  carryingOut @43 (dbName :Data, blockNo :Int32, blockSize :Int32, isEnd :Int32, value :Int32) -> (status :Int32, block :Block, isEnd :Int32, fileName :Data, value :Int32);
  carryingin @44 (dbName :Data, isFirst :Int32, bytes :Int32, block :Block, isLast :Int32) -> (status :Int32);
  carryingSetup @45 (first :Data, second :Data) -> (status :Int32);
  openTable @46 (dbName :Data, tableName :Data, mode :Int32, prefetch :UInt32) -> (status :Int32, rowCount :Int32, handle :Data, rows :List(Row));
  closeTable @47 (dbName :Data, handle :Data) -> (status :Int32);
  setCounter @48 (name :Data, op :Int32, value :Int32) -> (status :Int32, value :Int32);
  unused49 @49 () -> ();
  unused50 @50 () -> ();
  unused51 @51 () -> ();
  unused52 @52 () -> ();
  unlockDatabase @53 (dbName :Data) -> (status :Int32);
  unused54 @54 () -> ();
  executeSQL @55 (dbName :Data, sql :Data) -> (status :Int32);
  unused56 @56 () -> ();
  loginMgr @57 (first :Data, second :Data, third :Data, fourth :Int32) -> (status :Int32);
  getServerInfo @58 () -> (status :Int32, info :Data);
  dbBackUpBase @59 (a :Int32, b :Int32, c :Int32) -> (status :Int32);
  openTableEx @60 (dbName :Data, tableName :Data, sql :Data, flag :Int32, prefetch :UInt32) -> (status :Int32, rowCount :Int32, handle :Data, rows :List(Row));
  unused61 @61 () -> ();
  deleteRecords @62 (dbName :Data, handle :Data, firstRow :Int32, lastRow :Int32) -> (status :Int32);
  createBookDatabase @63 (templateName :Data, option :Data, newDbName :Data) -> (status :Int32);
  unused64 @64 () -> ();
  getCarryingInfo @65 () -> (status :Int32, list :Value);
  unused66 @66 () -> ();
  unused67 @67 () -> ();
  getOption @68 (kind :Int32, text :Data, a :Int32, b :Int32) -> (status :Int32, text :Data, a :Int32, b :Int32);
  unused69 @69 () -> ();
  unused70 @70 () -> ();
  unused71 @71 () -> ();
  connectCheck @72 () -> (status :Int32);
  getLastError @73 () -> (status :Int32, message :Data);
  unused74 @74 () -> ();
  unused75 @75 () -> ();
  imageFileDate @76 (dbName :Data, handle :Data, op :Int32, tIndex :Int32, date :Float64) -> (status :Int32, date :Float64);
  unused77 @77 () -> ();
  unused78 @78 () -> ();
  unused79 @79 () -> ();
  checkTBL @80 (dbName :Data, tableName :Data) -> (status :Int32);
  getDatabaseSize @81 (dbName :Data, size :Int32) -> (status :Int32, size :Int32);
  openNetShare @82 (shareClient :Data, computerName :Data, dbName :Data, tableName :Data, tIndex :Int32) -> (status :Int32, folder :Data);
  closeNetShare @83 (dbName :Data, tableName :Data, tIndex :Int32) -> (status :Int32);
  getOrgBookDBInfo @84 () -> (status :Int32, first :Value, second :Value, third :Value);
  addOrgBookDB @85 (a :Data, b :Data, c :Data, d :Int32) -> (status :Int32);
  deleteOrgBookDB @86 (a :Int32) -> (status :Int32);
  renameOrgBookDB @87 (a :Int32, b :Int32) -> (status :Int32);
  unused88 @88 () -> ();
  unused89 @89 () -> ();
  unused90 @90 () -> ();
  unused91 @91 () -> ();
  unused92 @92 () -> ();
  repricatOut @93 (dbName :Data) -> (status :Int32, fileName :Data);
  repricatIn @94 (dbName :Data) -> (status :Int32);
  getDatabaseSize2 @95 (dbName :Data, size :Int64) -> (status :Int32, size :Int64);
  checkRecordableFolder @96 (folder :Data) -> (status :Int32);
  unused97 @97 () -> ();
  checkSQLServerType @98 () -> (status :Int32);
  getServerInfo2 @99 (a :Int32, b :Int32, c :Int32, d :Int32) -> (status :Int32, a :Int32, b :Int32, c :Int32, d :Int32);
  getOSVersion @100 (first :Int32, second :Int32) -> (status :Int32, first :Int32, second :Int32);
  checkOSType @101 (type :Int32) -> (status :Int32, type :Int32);
  getServerModuleVersion @102 () -> (status :Int32, v1 :Int32, v2 :Int32, v3 :Int32, v4 :Int32);
  checkColumn @103 (dbName :Data, tableName :Data, columnName :Data) -> (status :Int32);
}

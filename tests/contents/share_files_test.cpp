// Image files on the share against a recording server whose share folder is a temporary folder:
// what the folders hold after an insert, an overlay, a failed overlay, downloads and deletes;
// the staleness test; index.bif; and the folder tools.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child_process.h"
#include "contents_fixture.h"
#include "platform/files.h"
#include "transfer/folder_tools.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Names = std::vector<std::string>;

constexpr char kDb[] = "BOOK0101000000";

// The names in a folder, folders marked with a trailing '/'.
Names names(const std::string& folder) {
  Names out;
  for (const auto& e : mv::fs::findFiles(folder + "/*"))
    out.push_back(e.name + (e.isDirectory ? "/" : ""));
  return out;
}

class ShareRecorded : public ContentsRecorded {
 protected:
  void SetUp() override {
    ContentsRecorded::SetUp();
    for (const auto& f : {share, source, local}) mkdir(f.c_str(), 0777);
    server->shareFolder = share;
  }
  // Makes the folders, then the files, of a path list ("dir/" for a folder), under `root`.
  static void make(const std::string& root, std::initializer_list<const char*> paths) {
    for (const std::string p : paths) {
      if (p.back() == '/')
        mv::CreateFolderPath(root + "/" + p);
      else
        put(root + "/" + p, p);
    }
  }
  int insert(int kind) { return MVInsertImageDataEX2(kDb, 12, source.c_str(), kind, "c"); }
  int overlay(int kind) { return MVUpDateImageDataEx2(kDb, 12, source.c_str(), kind, "c"); }
  int download(const std::string& to, int kind) {
    return MVDownLoadImageData2(kDb, 12, to.c_str(), kind, "c");
  }
  int stale() { return MVIsImageFilesUpdated(kDb, 12, local.c_str(), "c"); }

  TempFolder temp{"share"};
  const std::string share = temp / "share", source = temp / "source", local = temp / "local";
};

TEST_F(ShareRecorded, InsertReplacesTheDataFolderWithTheFilteredFilesAndOverlayKeepsOthers) {
  make(share, {"IndexFile/", "IndexFile/old.tif"});
  make(source, {"a.tif", "noext", ".hidden.tif", "sub.dir/", "sub.dir/c.tif"});
  put(source + "/INDEX.BIF", "[DataCnt],1");
  ASSERT_EQ(insert(1), 0);
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("a.tif"));
  EXPECT_EQ(content(share + "/index.bif"), "[DataCnt],1");
  EXPECT_THAT(server->methods(),
              ElementsAre("OpenDatabase", "OpenNetShare", "CloseNetShare", "CloseDatabase"));
  EXPECT_THAT(server->calls[1].args,
              ElementsAre("c", mv::fs::computerName(), kDb, "TagPageTBL", "12"));
  // A missing source or a bad kind changes nothing.
  make(share, {"EL/", "EL/keep.pdf"});
  EXPECT_EQ(MVInsertImageDataEX2(kDb, 12, (temp / "missing").c_str(), 2, "c"), -1);
  EXPECT_EQ(insert(0), -1);
  EXPECT_EQ(insert(3), -1);
  EXPECT_THAT(names(share + "/EL"), ElementsAre("keep.pdf"));
  EXPECT_EQ(server->count("CloseNetShare"), 4);

  // An overlay keeps the other files and removes its backup, also one left over.
  make(share, {"IndexFile/keep.tif", "IndexFile_Old/", "IndexFile_Old/stale.tif"});
  put(source + "/a.tif", "v2");
  ASSERT_EQ(overlay(1), 0);
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("a.tif", "keep.tif"));
  EXPECT_EQ(content(share + "/IndexFile/a.tif"), "v2");
  EXPECT_THAT(names(share), ElementsAre("EL/", "IndexFile/", "index.bif"));
  // A first insert makes the data folder and its parents; an overlay without one fails.
  server->shareFolder = share + "/deep/tag";
  ASSERT_EQ(insert(2), 0);
  EXPECT_EQ(content(share + "/deep/tag/EL/a.tif"), "v2");
  server->shareFolder = temp / "none";
  EXPECT_EQ(overlay(2), -1);
  EXPECT_FALSE(mv::fs::exists(temp / "none/EL_Old"));
}

TEST_F(ShareRecorded, AFailedOverlayPutsTheBackupBackButKeepsTheNewIndex) {
  make(share, {"IndexFile/", "IndexFile/a.tif", "IndexFile/x.tif/"});  // a folder for a file
  make(source, {"x.tif"});
  put(source + "/a.tif", "v2");
  put(source + "/index.bif", "[DataCnt],2");
  EXPECT_EQ(overlay(1), -1);
  EXPECT_THAT(names(share), ElementsAre("IndexFile/", "index.bif"));
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("a.tif", "x.tif/"));
  EXPECT_EQ(content(share + "/IndexFile/a.tif"), "IndexFile/a.tif");
  EXPECT_EQ(content(share + "/index.bif"), "[DataCnt],2");
}

TEST_F(ShareRecorded, DownloadsTakeTheSelectedFilesOrTheWholeFolderOfTheirKind) {
  make(share, {"IndexFile/", "IndexFile/a.tif", "IndexFile/b.tif", "IndexFile/c.tif",
               "IndexFile/d.tif", "IndexFile/noext", "EL/", "EL/e.pdf"});
  EXPECT_EQ(download(local, 0), 0);  // selective without an index: nothing
  EXPECT_THAT(names(local), IsEmpty());
  put(share + "/index.bif", "[DataCnt],0\n[Data],a.tif,1,v,1");
  EXPECT_EQ(download(local, 0), -1);  // count 0
  EXPECT_THAT(names(local), IsEmpty());
  put(share + "/index.bif", "[DataCnt],1\n[Data],gone.tif,1,v,1");
  EXPECT_EQ(download(local, 0), -1);  // a listed file is missing
  EXPECT_THAT(names(local), IsEmpty());
  // Attributes 1 and 5 are taken, with the index; what was there stays.
  put(share + "/index.bif",
      "[DataCnt],4\r\n[Data],a.tif,1,v,1\r\n\r\n[Data],b.tif,2,v,1\n[Data],c.tif,5,v,1\n"
      "[Data],d.tif,0,v,1");
  put(local + "/old.tif", "stays");
  ASSERT_EQ(download(local, 0), 0);
  EXPECT_THAT(names(local), ElementsAre("a.tif", "c.tif", "index.bif", "old.tif"));
  const Names whole[] = {{"a.tif", "b.tif", "c.tif", "d.tif", "index.bif", "noext"},
                         {"e.pdf", "index.bif"},
                         {"index.bif"}};
  for (int kind = 1; kind <= 3; ++kind) {
    const std::string to = temp / ("kind" + std::to_string(kind));
    mkdir(to.c_str(), 0777);
    ASSERT_EQ(download(to, kind), 0);
    EXPECT_EQ(names(to), whole[kind - 1]) << kind;
  }
  EXPECT_EQ(download(local, 4), -1);
  server->shareFolder = temp / "none";  // a missing source is no failure
  ASSERT_EQ(download(temp / "kind3", 2), 0);
  EXPECT_THAT(names(temp / "kind3"), ElementsAre("index.bif"));
}

TEST_F(ShareRecorded, DeletesTakeAFileFromBothFoldersAndATagsRowsBeforeItsFolder) {
  make(share, {"EL/", "EL/a.tif", "EL/b.tif", "IndexFile/", "IndexFile/a.tif", "IndexFile/b.tif"});
  EXPECT_EQ(MVDeleteImageData2(kDb, 12, "a.tif", "c"), 0);
  EXPECT_EQ(MVDeleteImageData2(kDb, 12, "none.tif", "c"), 0);
  EXPECT_THAT(names(share + "/EL"), ElementsAre("b.tif"));
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("b.tif"));

  // A missing tag keeps its folder; a share that cannot be opened fails after the rows went.
  server->calls.clear();
  EXPECT_EQ(MVDeleteTag2(kDb, 12, 34, "c"), -1);
  EXPECT_EQ(server->count("DeleteRecord"), 0);
  EXPECT_EQ(server->count("CloseNetShare"), 1);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
  server->queueResult({{"KEY=T_Index\t1\t12"}});
  server->failNext("OpenNetShare", 0x55);
  EXPECT_EQ(MVDeleteTag2(kDb, 12, 34, "c"), -1);
  EXPECT_EQ(server->count("DeleteRecord"), 2);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_THAT(names(share), ElementsAre("EL/", "IndexFile/"));
  server->calls.clear();
  server->queueResult({{"KEY=T_Index\t1\t12"}});
  ASSERT_EQ(MVDeleteTag2(kDb, 12, 34, "c"), 0) << server->log();
  EXPECT_THAT(names(share), IsEmpty());
  EXPECT_THAT(
      server->methods(),
      ElementsAre("OpenDatabase", "OpenNetShare", "OpenTableEx", "DeleteRecord", "CloseTable",
                  "OpenTableEx", "DeleteRecord", "CloseTable", "CloseNetShare", "CloseDatabase"));
  EXPECT_THAT(server->argsOf("OpenTableEx", 2),
              ElementsAre("SELECT * FROM TagPageTBL WHERE (T_Index=12)",
                          "SELECT * FROM TagDispTBL WHERE (TagID=12)"));
  EXPECT_EQ(server->calls[6].args[2], "34");
}

TEST_F(ShareRecorded, FrameFailuresGiveEachExportsFailureValue) {
  server->answerAlways("OpenNetShare", 0x55);
  mv::connection().lastError = 9;
  EXPECT_EQ(download(local, 1), -1);
  EXPECT_EQ(stale(), 0);
  EXPECT_EQ(MVCheckIsAccessNetData("c", kDb), -2);
  EXPECT_EQ(mv::connection().lastError, 9);  // neither cleared nor set
  EXPECT_EQ(server->count("CloseNetShare"), 3);
  server->answerAlways("OpenNetShare", 0);
  server->failNext("CloseNetShare", 0x66);
  EXPECT_EQ(MVCheckIsAccessNetData("c", kDb), -2);
  EXPECT_EQ(MVCheckIsAccessNetData("c", kDb), 0);
  EXPECT_EQ(server->calls[server->calls.size() - 3].args[4], "20");
  EXPECT_THAT(names(share), IsEmpty());  // the test folder is gone again

  // A held database is not opened; a failed open stops all but the staleness test.
  ASSERT_EQ(MVOpenDBEx(kDb), 0);
  server->calls.clear();
  EXPECT_EQ(MVDeleteImageData2(kDb, 12, "a.tif", "c"), 0);
  EXPECT_THAT(server->methods(), ElementsAre("OpenNetShare", "CloseNetShare"));
  ASSERT_EQ(MVCloseDBEx(kDb), 0);
  server->calls.clear();
  server->answerAlways("OpenDatabase", 0x77);
  EXPECT_EQ(MVDeleteImageData2(kDb, 12, "a.tif", "c"), -1);
  EXPECT_EQ(MVCheckIsAccessNetData("c", kDb), -2);
  EXPECT_EQ(server->count("OpenNetShare"), 0);
  put(share + "/index.bif", "[DataCnt],1");
  EXPECT_EQ(stale(), 1);
  EXPECT_EQ(mv::connection().lastError, 0x77);
  EXPECT_EQ(server->count("CloseDatabase"), 0);
}

TEST_F(ShareRecorded, StalenessComparesCountsFilesAndCountersByPosition) {
  EXPECT_EQ(stale(), 0);  // no server index: never stale
  struct Case {
    const char* server;
    const char* local;  // nullptr: no local index
    int stale;
  } const cases[] = {
      {"[DataCnt],0", nullptr, 1},
      {"[DataCnt],2\n[Data],a.tif,1,,1\n[Data],b.tif,1,,1", "[DataCnt],1\n[Data],a.tif,1,,1", 1},
      {"[DataCnt],2\n[Data],a.tif,1,,1\n[Data],b.tif,1,,1",
       "[DataCnt],2\n[Data],a.tif,1,,1\n[Data],b.tif,1,,1", 0},
      // Only a higher server counter at the same position is an update.
      {"[DataCnt],2\r\n[Data],a.tif,1,,3\r\n\r\n[Data],b.tif,1,,1",
       "[DataCnt],2\n[Data],a.tif,1,,3\n\n[Data],b.tif,1,,5", 0},
      {"[DataCnt],2\r\n[Data],a.tif,1,,3\r\n\r\n[Data],b.tif,1,,1",
       "[DataCnt],2\n[Data],a.tif,1,,2\n\n[Data],b.tif,1,,5", 1},
      // An empty local line against a data line counts 0.
      {"[DataCnt],2\r\n[Data],a.tif,1,,3\r\n\r\n[Data],b.tif,1,,1",
       "[DataCnt],2\n[Data],a.tif,1,,3\n[Data],b.tif,1,,5\n", 1},
  };
  make(local, {"a.tif", "b.tif"});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.local ? c.local : "none");
    put(share + "/index.bif", c.server);
    if (c.local) put(local + "/index.bif", c.local);
    EXPECT_EQ(stale(), c.stale);
  }
  // A deleted local file is seen although the local index still matches.
  put(share + "/index.bif", cases[2].server);
  put(local + "/index.bif", cases[2].local);
  ASSERT_TRUE(mv::fs::deleteFile(local + "/b.tif"));
  make(local, {"noext", ".hidden.tif"});
  EXPECT_EQ(stale(), 1);
}

TEST(FolderTools, CopiesSkipDotNamesAndOverwriteWhenToldAndEmptyingNeverFollowsALink) {
  TempFolder temp{"folders"};
  const std::string from = temp / "from", to = temp / "to/x";
  mv::CreateFolderPath(from + "/sub");
  for (const char* f : {"/a.txt", "/.dot", "/sub/b.txt"}) put(from + f, "1");
  chmod((from + "/a.txt").c_str(), 0444);
  ASSERT_EQ(mv::CopyFolderTree(from, to, 0), 1);
  EXPECT_THAT(names(to), ElementsAre("a.txt", "sub/"));
  EXPECT_EQ(access((to + "/a.txt").c_str(), W_OK), 0);  // a read-only source made writable
  put(from + "/sub/b.txt", "2");
  EXPECT_EQ(mv::CopyFolderTree(from, to, 0), 0);
  EXPECT_EQ(mv::CopyFolderTree(from, to, 1), 1);
  EXPECT_EQ(content(to + "/sub/b.txt"), "2");
  // Emptying keeps the folder; a dot name stops the walk.
  const std::string root = temp / "root", outside = temp / "outside";
  mv::CreateFolderPath(root + "/sub/deeper");
  mv::CreateFolderPath(outside);
  for (const char* f : {"/a", "/sub/deeper/b", "/sub/.keep"}) put(root + f, "1");
  put(outside + "/precious", "p");
  ASSERT_EQ(symlink(outside.c_str(), (root + "/link").c_str()), 0);
  EXPECT_EQ(mv::DeleteFolderTree(root), 0);
  ASSERT_TRUE(mv::fs::deleteFile(root + "/sub/.keep"));
  EXPECT_EQ(mv::DeleteFolderTree(root), 1);
  EXPECT_THAT(names(root), IsEmpty());
  EXPECT_EQ(content(outside + "/precious"), "p");
}

}  // namespace
}  // namespace mvtest

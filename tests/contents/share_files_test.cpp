// Image files on the share against a recording server whose share folder is a temporary folder:
// what the folders hold after an insert, an overlay, a failed overlay, downloads and deletes;
// the staleness test; index.bif; and the folder tools.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "MVCore.h"
#include "child_process.h"
#include "contents/index_bif.h"
#include "frame/connection.h"
#include "platform/files.h"
#include "server_fixture.h"
#include "transfer/folder_tools.h"

namespace mvtest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kDb[] = "BOOK0101000000";

std::string content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The names in a folder, folders marked with a trailing '/'.
std::vector<std::string> names(const std::string& folder) {
  std::vector<std::string> out;
  for (const auto& e : mv::fs::findFiles(folder + "/*"))
    out.push_back(e.name + (e.isDirectory ? "/" : ""));
  return out;
}

class ShareRecorded : public ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    server = &connect();
    share = temp / "share";
    source = temp / "source";
    local = temp / "local";
    for (const auto& f : {share, source, local}) mkdir(f.c_str(), 0777);
    server->shareFolder = share;
  }
  std::string in(const std::string& folder, const std::string& name) { return folder + "/" + name; }

  RecordingServer* server = nullptr;
  TempFolder temp{"share"};
  std::string share, source, local;
};

// --- insert and overlay ----------------------------------------------------------------------

TEST_F(ShareRecorded, InsertReplacesTheDataFolderWithTheFilteredSourceFiles) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  put(share + "/IndexFile/old.tif", "old");
  put(in(source, "a.tif"), "A");
  put(in(source, "noext"), "x");
  put(in(source, ".hidden.tif"), "x");
  put(in(source, "INDEX.BIF"), "[DataCnt],1\n[Data],a.tif,1,,1");
  mkdir((source + "/sub.dir").c_str(), 0777);
  put(source + "/sub.dir/c.tif", "c");
  ASSERT_EQ(MVInsertImageDataEX2(kDb, 12, source.c_str(), 1, "client"), 0);
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("a.tif"));
  EXPECT_EQ(content(share + "/index.bif"), "[DataCnt],1\n[Data],a.tif,1,,1");
  EXPECT_THAT(server->methods(),
              ElementsAre("OpenDatabase", "OpenNetShare", "CloseNetShare", "CloseDatabase"));
  EXPECT_THAT(server->calls[1].args,
              ElementsAre("client", mv::fs::computerName(), kDb, "TagPageTBL", "12"));
}

TEST_F(ShareRecorded, InsertWithoutASourceOrWithABadKindChangesNothing) {
  mkdir((share + "/EL").c_str(), 0777);
  put(share + "/EL/keep.pdf", "k");
  const std::string missing = temp / "missing";
  EXPECT_EQ(MVInsertImageDataEX2(kDb, 12, missing.c_str(), 2, "c"), -1);
  put(in(source, "a.pdf"), "A");
  EXPECT_EQ(MVInsertImageDataEX2(kDb, 12, source.c_str(), 0, "c"), -1);
  EXPECT_EQ(MVInsertImageDataEX2(kDb, 12, source.c_str(), 3, "c"), -1);
  EXPECT_THAT(names(share + "/EL"), ElementsAre("keep.pdf"));
  EXPECT_EQ(server->count("CloseNetShare"), 3);
}

TEST_F(ShareRecorded, FirstInsertMakesTheDataFolderAndItsParents) {
  server->shareFolder = share + "/deep/tag";
  put(in(source, "a.pdf"), "A");
  ASSERT_EQ(MVInsertImageDataEX2(kDb, 12, source.c_str(), 2, "c"), 0);
  EXPECT_EQ(content(share + "/deep/tag/EL/a.pdf"), "A");
}

TEST_F(ShareRecorded, OverlayKeepsOtherFilesAndRemovesTheBackup) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  put(share + "/IndexFile/a.tif", "v1");
  put(share + "/IndexFile/keep.tif", "k");
  put(in(source, "a.tif"), "v2");
  put(in(source, "b.tif"), "b");
  ASSERT_EQ(MVUpDateImageDataEx2(kDb, 12, source.c_str(), 1, "c"), 0);
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("a.tif", "b.tif", "keep.tif"));
  EXPECT_EQ(content(share + "/IndexFile/a.tif"), "v2");
  EXPECT_THAT(names(share), ElementsAre("IndexFile/"));
}

TEST_F(ShareRecorded, FailedOverlayPutsTheBackupBackButKeepsTheNewIndex) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  put(share + "/IndexFile/a.tif", "v1");
  mkdir((share + "/IndexFile/x.tif").c_str(), 0777);  // a folder where a file must go
  put(in(source, "a.tif"), "v2");
  put(in(source, "index.bif"), "[DataCnt],2");
  put(in(source, "x.tif"), "x");
  EXPECT_EQ(MVUpDateImageDataEx2(kDb, 12, source.c_str(), 1, "c"), -1);
  EXPECT_THAT(names(share), ElementsAre("IndexFile/", "index.bif"));
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("a.tif", "x.tif/"));
  EXPECT_EQ(content(share + "/IndexFile/a.tif"), "v1");
  EXPECT_EQ(content(share + "/index.bif"), "[DataCnt],2");
}

TEST_F(ShareRecorded, OverlayOfATagWithoutItsDataFolderFails) {
  put(in(source, "a.pdf"), "A");
  EXPECT_EQ(MVUpDateImageDataEx2(kDb, 12, source.c_str(), 2, "c"), -1);
  EXPECT_FALSE(mv::fs::exists(share + "/EL/a.pdf"));
  EXPECT_FALSE(mv::fs::exists(share + "/EL_Old"));
}

TEST_F(ShareRecorded, ALeftoverBackupIsOverwrittenByTheNextOverlay) {
  mkdir((share + "/EL").c_str(), 0777);
  mkdir((share + "/EL_Old").c_str(), 0777);
  put(share + "/EL/a.pdf", "new");
  put(share + "/EL_Old/a.pdf", "stale");
  put(in(source, "b.pdf"), "b");
  ASSERT_EQ(MVUpDateImageDataEx2(kDb, 12, source.c_str(), 2, "c"), 0);
  EXPECT_THAT(names(share), ElementsAre("EL/"));
}

// --- downloads ----------------------------------------------------------------------------------

TEST_F(ShareRecorded, SelectiveDownloadTakesAttributesOneAndFiveAndTheIndex) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  for (const char* n : {"a.tif", "b.tif", "c.tif", "d.tif"}) put(share + "/IndexFile/" + n, n);
  put(share + "/index.bif",
      "[DataCnt],4\r\n[Data],a.tif,1,v,1\r\n\r\n[Data],b.tif,2,v,1\n[Data],c.tif,5,v,1\n"
      "[Data],d.tif,0,v,1");
  put(in(local, "old.tif"), "stays");
  ASSERT_EQ(MVDownLoadImageData2(kDb, 12, local.c_str(), 0, "c"), 0);
  EXPECT_THAT(names(local), ElementsAre("a.tif", "c.tif", "index.bif", "old.tif"));
}

TEST_F(ShareRecorded, SelectiveDownloadWithoutAnIndexCopiesNothingAndWithCountZeroFails) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  put(share + "/IndexFile/a.tif", "a");
  EXPECT_EQ(MVDownLoadImageData2(kDb, 12, local.c_str(), 0, "c"), 0);
  EXPECT_THAT(names(local), IsEmpty());
  put(share + "/index.bif", "[DataCnt],0\n[Data],a.tif,1,v,1");
  EXPECT_EQ(MVDownLoadImageData2(kDb, 12, local.c_str(), 0, "c"), -1);
  EXPECT_THAT(names(local), IsEmpty());
}

TEST_F(ShareRecorded, SelectiveDownloadFailsOnAListedFileThatIsMissing) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  put(share + "/index.bif", "[DataCnt],1\n[Data],gone.tif,1,v,1");
  EXPECT_EQ(MVDownLoadImageData2(kDb, 12, local.c_str(), 0, "c"), -1);
  EXPECT_FALSE(mv::fs::exists(local + "/index.bif"));
}

TEST_F(ShareRecorded, FullDownloadsTakeTheWholeFolderOfTheirKind) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  mkdir((share + "/EL").c_str(), 0777);
  put(share + "/IndexFile/a.tif", "a");
  put(share + "/IndexFile/noext", "n");
  put(share + "/EL/e.pdf", "e");
  put(share + "/index.bif", "[DataCnt],1");
  ASSERT_EQ(MVDownLoadImageData2(kDb, 12, local.c_str(), 1, "c"), 0);
  EXPECT_THAT(names(local), ElementsAre("a.tif", "index.bif", "noext"));
  const std::string local2 = temp / "local2";
  mkdir(local2.c_str(), 0777);
  ASSERT_EQ(MVDownLoadImageData2(kDb, 12, local2.c_str(), 2, "c"), 0);
  EXPECT_THAT(names(local2), ElementsAre("e.pdf", "index.bif"));
  const std::string local3 = temp / "local3";
  mkdir(local3.c_str(), 0777);
  ASSERT_EQ(MVDownLoadImageData2(kDb, 12, local3.c_str(), 3, "c"), 0);
  EXPECT_THAT(names(local3), ElementsAre("index.bif"));
  EXPECT_EQ(MVDownLoadImageData2(kDb, 12, local3.c_str(), 4, "c"), -1);
}

TEST_F(ShareRecorded, DownloadFromAMissingSourceIsNoFailure) {
  ASSERT_EQ(MVDownLoadImageData2(kDb, 12, local.c_str(), 2, "c"), 0);
  EXPECT_THAT(names(local), IsEmpty());
}

// --- deletes
// --------------------------------------------------------------------------------------

TEST_F(ShareRecorded, DeleteFileTakesItFromBothFolders) {
  for (const char* f : {"/EL", "/IndexFile"}) {
    mkdir((share + f).c_str(), 0777);
    put(share + f + "/a.tif", "a");
    put(share + f + "/b.tif", "b");
  }
  EXPECT_EQ(MVDeleteImageData2(kDb, 12, "a.tif", "c"), 0);
  EXPECT_EQ(MVDeleteImageData2(kDb, 12, "none.tif", "c"), 0);
  EXPECT_THAT(names(share + "/EL"), ElementsAre("b.tif"));
  EXPECT_THAT(names(share + "/IndexFile"), ElementsAre("b.tif"));
}

TEST_F(ShareRecorded, DeleteTagTakesBothRowsAndEmptiesTheFolder) {
  mkdir((share + "/IndexFile").c_str(), 0777);
  put(share + "/IndexFile/a.tif", "a");
  put(share + "/index.bif", "x");
  server->queueResult({{"KEY=T_Index\t1\t12"}});
  ASSERT_EQ(MVDeleteTag2(kDb, 12, 34, "c"), 0) << server->log();
  EXPECT_THAT(names(share), IsEmpty());
  EXPECT_THAT(
      server->methods(),
      ElementsAre("OpenDatabase", "OpenNetShare", "OpenTableEx", "DeleteRecord", "CloseTable",
                  "OpenTableEx", "DeleteRecord", "CloseTable", "CloseNetShare", "CloseDatabase"));
  EXPECT_EQ(server->calls[2].args[2], "SELECT * FROM TagPageTBL WHERE (T_Index=12)");
  EXPECT_EQ(server->calls[6].args[2], "34");
}

TEST_F(ShareRecorded, DeleteTagWithoutItsShareDeletesTheRowsAndFails) {
  put(share + "/index.bif", "x");
  server->queueResult({{"KEY=T_Index\t1\t12"}});
  server->failNext("OpenNetShare", 0x55);
  EXPECT_EQ(MVDeleteTag2(kDb, 12, 34, "c"), -1);
  EXPECT_EQ(server->count("DeleteRecord"), 2);
  EXPECT_EQ(mv::connection().lastError, 0);
  EXPECT_THAT(names(share), ElementsAre("index.bif"));
}

TEST_F(ShareRecorded, DeleteTagOfAMissingTagKeepsItsFolder) {
  put(share + "/index.bif", "x");
  EXPECT_EQ(MVDeleteTag2(kDb, 12, 34, "c"), -1);
  EXPECT_EQ(server->count("DeleteRecord"), 0);
  EXPECT_THAT(names(share), ElementsAre("index.bif"));
  EXPECT_EQ(server->count("CloseNetShare"), 1);
  EXPECT_EQ(server->count("CloseDatabase"), 1);
}

// --- the frame ----------------------------------------------------------------------------------

TEST_F(ShareRecorded, FrameFailuresGiveEachExportsFailureValue) {
  server->answerAlways("OpenNetShare", 0x55);
  mv::connection().lastError = 9;
  EXPECT_EQ(MVDownLoadImageData2(kDb, 12, local.c_str(), 1, "c"), -1);
  EXPECT_EQ(MVIsImageFilesUpdated(kDb, 12, local.c_str(), "c"), 0);
  EXPECT_EQ(MVCheckIsAccessNetData("c", kDb), -2);
  EXPECT_EQ(mv::connection().lastError, 9);  // neither cleared nor set
  EXPECT_EQ(server->count("CloseNetShare"), 3);
  server->answerAlways("OpenNetShare", 0);
  server->failNext("CloseNetShare", 0x66);
  EXPECT_EQ(MVCheckIsAccessNetData("c", kDb), -2);
  EXPECT_EQ(MVCheckIsAccessNetData("c", kDb), 0);
  EXPECT_EQ(server->calls[server->calls.size() - 3].args[4], "20");
  EXPECT_THAT(names(share), IsEmpty());  // the test folder is gone again
}

TEST_F(ShareRecorded, HeldDatabaseIsNotOpenedAndAFailedOpenStopsAllButTheStalenessTest) {
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
  EXPECT_EQ(MVIsImageFilesUpdated(kDb, 12, local.c_str(), "c"), 1);
  EXPECT_EQ(mv::connection().lastError, 0x77);
  EXPECT_EQ(server->count("CloseDatabase"), 0);
}

// --- staleness ----------------------------------------------------------------------------------

class Staleness : public ShareRecorded {
 protected:
  int stale() { return MVIsImageFilesUpdated(kDb, 12, local.c_str(), "c"); }
  void localFiles(std::initializer_list<const char*> files) {
    for (const char* f : files) put(in(local, f), "x");
  }
};

TEST_F(Staleness, NoServerIndexIsNeverStaleAndNoLocalIndexAlwaysIs) {
  EXPECT_EQ(stale(), 0);
  put(share + "/index.bif", "[DataCnt],0");
  EXPECT_EQ(stale(), 1);
}

TEST_F(Staleness, HigherServerCountOrFewerLocalFilesIsStale) {
  put(share + "/index.bif", "[DataCnt],2\n[Data],a.tif,1,,1\n[Data],b.tif,1,,1");
  put(in(local, "index.bif"), "[DataCnt],1\n[Data],a.tif,1,,1");
  localFiles({"a.tif", "b.tif"});
  EXPECT_EQ(stale(), 1);
  put(in(local, "index.bif"), "[DataCnt],2\n[Data],a.tif,1,,1\n[Data],b.tif,1,,1");
  EXPECT_EQ(stale(), 0);
  // A deleted local file is seen although the local index still matches.
  ASSERT_TRUE(mv::fs::deleteFile(in(local, "b.tif")));
  localFiles({"noext", ".hidden.tif"});
  EXPECT_EQ(stale(), 1);
}

TEST_F(Staleness, OnlyAHigherServerCounterAtTheSamePositionIsStale) {
  localFiles({"a.tif", "b.tif"});
  put(share + "/index.bif", "[DataCnt],2\r\n[Data],a.tif,1,,3\r\n\r\n[Data],b.tif,1,,1");
  put(in(local, "index.bif"), "[DataCnt],2\n[Data],a.tif,1,,3\n\n[Data],b.tif,1,,5");
  EXPECT_EQ(stale(), 0);  // a higher local counter is no update
  put(in(local, "index.bif"), "[DataCnt],2\n[Data],a.tif,1,,2\n\n[Data],b.tif,1,,5");
  EXPECT_EQ(stale(), 1);
  // Lines pair by position: an empty local line against a data line counts 0.
  put(in(local, "index.bif"), "[DataCnt],2\n[Data],a.tif,1,,3\n[Data],b.tif,1,,5\n");
  EXPECT_EQ(stale(), 1);
}

// --- index.bif ---------------------------------------------------------------------------------

TEST(IndexBif, ReadsCountAndFieldsByPositionWithEitherLineEnd) {
  const mv::IndexBif index =
      mv::parseIndexBif("[DataCnt],3\r\n[Data],a.tif,5,x,7\r\n\n[Data],b.tif,2\n[Data],c,1,y,z");
  EXPECT_EQ(index.count, 3);
  EXPECT_THAT(index.lines,
              ElementsAre("[Data],a.tif,5,x,7", "", "[Data],b.tif,2", "[Data],c,1,y,z"));
  EXPECT_EQ(mv::indexNumber(index.lines[0], 4), 7);
  EXPECT_EQ(mv::indexNumber(index.lines[2], 4), 0);  // missing field
  EXPECT_EQ(mv::indexNumber(index.lines[3], 4), 0);  // no number
  EXPECT_THAT(mv::selectedFiles(index), ElementsAre("a.tif", "c"));
  EXPECT_EQ(mv::parseIndexBif("").count, 0);
  EXPECT_EQ(mv::parseIndexBif("[DataCnt]\n[Data],a,1,,1").count, 0);
  EXPECT_EQ(mv::parseIndexBif("[DataCnt],x").count, 0);
}

TEST(IndexBif, NamesAndExtensions) {
  EXPECT_TRUE(mv::isIndexFileName("Index.BIF"));
  EXPECT_FALSE(mv::isIndexFileName("index.bif2"));
  EXPECT_TRUE(mv::hasExtension("a.b"));
  EXPECT_FALSE(mv::hasExtension("abc"));
  EXPECT_FALSE(mv::hasExtension("abc."));
  EXPECT_FALSE(mv::hasExtension(".abc"));
}

// --- folder tools -------------------------------------------------------------------------------

class FolderTools : public ::testing::Test {
 protected:
  TempFolder temp{"folders"};
};

TEST_F(FolderTools, CreateFolderPathMakesAllParentsAndAcceptsAnExistingFolder) {
  const std::string deep = temp.path() + "\\a\\b\\c";
  EXPECT_NE(mv::CreateFolderPath(deep), 0);
  EXPECT_TRUE(mv::fs::isDirectory(temp / "a/b/c"));
  EXPECT_NE(mv::CreateFolderPath(deep), 0);
  const std::string file = temp.write("f.txt", "x");
  EXPECT_EQ(mv::CreateFolderPath(file), 0);
  EXPECT_EQ(mv::CreateFolderPath(file + "/below"), 0);
}

TEST_F(FolderTools, CopyFolderTreeCopiesNestedFilesSkipsDotNamesAndHonoursOverwrite) {
  const std::string from = temp / "from";
  mv::CreateFolderPath(from + "/sub");
  put(from + "/a.txt", "a");
  put(from + "/.dot", "d");
  put(from + "/sub/b.txt", "b");
  chmod((from + "/a.txt").c_str(), 0444);
  const std::string to = temp / "to/x";
  ASSERT_EQ(mv::CopyFolderTree(from, to, 0), 1);
  EXPECT_THAT(names(to), ElementsAre("a.txt", "sub/"));
  EXPECT_EQ(content(to + "/sub/b.txt"), "b");
  struct stat st {};
  ASSERT_EQ(stat((to + "/a.txt").c_str(), &st), 0);
  EXPECT_NE(st.st_mode & S_IWUSR, 0u);  // a read-only source gives a writable copy
  put(from + "/sub/b.txt", "b2");
  EXPECT_EQ(mv::CopyFolderTree(from, to, 0), 0);
  EXPECT_EQ(mv::CopyFolderTree(from, to, 1), 1);
  EXPECT_EQ(content(to + "/sub/b.txt"), "b2");
  EXPECT_EQ(mv::CopyFolderTree(temp / "none", temp / "made", 1), 1);
  EXPECT_TRUE(mv::fs::isDirectory(temp / "made"));
}

TEST_F(FolderTools, DeleteFolderTreeEmptiesButKeepsTheFolderDotNamesAndLinkedTrees) {
  const std::string root = temp / "root";
  const std::string outside = temp / "outside";
  mv::CreateFolderPath(root + "/sub/deeper");
  mv::CreateFolderPath(outside);
  put(root + "/a", "a");
  put(root + "/sub/deeper/b", "b");
  put(root + "/sub/.keep", "k");
  put(outside + "/precious", "p");
  ASSERT_EQ(symlink(outside.c_str(), (root + "/link").c_str()), 0);
  // The folder that holds a dot name cannot be removed: that stops the walk.
  EXPECT_EQ(mv::DeleteFolderTree(root), 0);
  ASSERT_TRUE(mv::fs::deleteFile(root + "/sub/.keep"));
  EXPECT_EQ(mv::DeleteFolderTree(root), 1);
  EXPECT_THAT(names(root), IsEmpty());
  EXPECT_EQ(content(outside + "/precious"), "p");
  EXPECT_EQ(mv::DeleteFolderTree(temp / "missing"), 1);
}

}  // namespace
}  // namespace mvtest

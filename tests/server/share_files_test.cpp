// A session's share folders as its file service serves them to a client on another machine:
// only the folders the session has open, only by plain names, never out through a link.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "book_server_session.h"

namespace mvtest::server {
namespace {

class ShareFilesTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    core->serveSharesAs("Books");
    createBook(kBook);
  }
  // OpenNetShare of tag `key` in kBook; the network path it answers.
  std::string open(Server& session, int32_t key) {
    mv::Bstr folder;
    EXPECT_EQ(
        session.OpenNetShare(In("c"), In("pc"), In(kBook), In("TagPageTBL"), key, folder.out()), 0);
    return mv::bstrToUtf8(folder.get());
  }
  int32_t close(Server& session, int32_t key) {
    return session.CloseNetShare(In(kBook), In("TagPageTBL"), key);
  }
  static std::shared_ptr<mv::fs::FileSystem> files(const Session& session) {
    return static_cast<mv::server::BookServer&>(*session).shareFiles();
  }
  // errno of a failed stat, 0 when it succeeds.
  static int statError(mv::fs::FileSystem& f, const std::string& path) {
    mv::fs::FileInfo info;
    errno = 0;
    return f.stat(path, info) ? 0 : errno;
  }
  static bool put(mv::fs::FileSystem& f, const std::string& path, std::string_view bytes) {
    const auto writer = f.openWrite(path, false);
    return writer && writer->write(bytes.data(), bytes.size()) && writer->commit(1700000000);
  }
};

TEST_F(ShareFilesTest, AnsweredPathsNameTheServerAndServeOnlyWhatIsOpen) {
  const std::string share = open(*s, 7);
  EXPECT_EQ(share, std::string("\\\\Books\\shares\\") + kBook + "\\TagPageTBL\\7");
  const auto mine = files(s);
  ASSERT_TRUE(mine);
  ASSERT_TRUE(mine->createDirectory(share + "\\IndexFile"));
  ASSERT_TRUE(put(*mine, share + "\\IndexFile\\a.tif", "abc"));
  mv::fs::FileInfo info;
  ASSERT_TRUE(mine->stat(share + "/IndexFile/a.tif", info));  // either separator
  EXPECT_EQ(info.size, 3u);
  EXPECT_EQ(info.lastWrite, 1700000000);
  EXPECT_EQ(statError(*mine, "\\\\books\\shares\\" + std::string(kBook) + "\\TagPageTBL\\7"), 0)
      << "the server's name ignores case";

  // Another session, a sibling share, the book's folder above it: nothing of it is served.
  Session other = connect();
  EXPECT_EQ(statError(*files(other), share), EACCES);
  EXPECT_EQ(statError(*mine, std::string("\\\\Books\\shares\\") + kBook + "\\TagPageTBL\\8"),
            EACCES);
  EXPECT_EQ(statError(*mine, std::string("\\\\Books\\shares\\") + kBook), EACCES);

  // Opened twice, a folder stays open until closed twice; then nothing is served.
  open(*s, 7);
  EXPECT_EQ(close(*s, 7), 0);
  EXPECT_EQ(statError(*mine, share), 0);
  EXPECT_EQ(close(*s, 7), 0);
  EXPECT_EQ(statError(*mine, share), EACCES);
  EXPECT_EQ(mine->openWrite(share + "\\IndexFile\\b.tif", false), nullptr);
  EXPECT_EQ(errno, EACCES);

  // The session's end closes what it had open, even for a service that outlives it.
  open(*s, 7);
  s.reset();
  EXPECT_EQ(statError(*mine, share), EACCES);
}

TEST_F(ShareFilesTest, NamesThatLeaveTheFolderOrAreNotPlainAreRefused) {
  const std::string share = open(*s, 7);
  const auto f = files(s);
  const std::string outside = folder() + "/outside";
  ASSERT_EQ(::mkdir(outside.c_str(), 0700), 0);
  const std::string local = folder() + "/shares/" + kBook + "/TagPageTBL/7";
  ASSERT_EQ(::symlink(outside.c_str(), (local + "/out").c_str()), 0);

  const struct {
    std::string path;
    int error;
  } cases[] = {
      {share + "\\..\\8", EINVAL},
      {share + "\\.\\x", EINVAL},
      {share + "\\a\\\\b", EINVAL},
      {share + "\\a" + std::string(1, '\0') + "b", EINVAL},
      {share + "\\bad\xff\xfe", EINVAL},
      {share + "\\" + std::string(256, 'n'), EINVAL},
      {local, EACCES},  // a local path
      {"\\\\Elsewhere\\shares\\" + std::string(kBook) + "\\TagPageTBL\\7", EACCES},
      {"\\\\Books\\db\\" + std::string(kBook), EACCES},
      {share + "\\out", EACCES},  // a link out
      {share + "\\out\\secret.txt", EACCES},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(statError(*f, c.path), c.error) << c.path;
    EXPECT_FALSE(put(*f, c.path, "x")) << c.path;
  }
  // The link itself may go: removing it changes nothing outside.
  EXPECT_TRUE(f->deleteFile(share + "\\out"));
  struct stat st {};
  EXPECT_EQ(::stat(outside.c_str(), &st), 0);
}

TEST_F(ShareFilesTest, AnUnfinishedWriteLeavesNothingUnderItsName) {
  const std::string share = open(*s, 7);
  const auto f = files(s);
  const std::string local = folder() + "/shares/" + kBook + "/TagPageTBL/7";
  {
    const auto writer = f->openWrite(share + "\\a.tif", false);
    ASSERT_TRUE(writer);
    ASSERT_TRUE(writer->write("half", 4));
  }  // dropped, as when the client's connection ends
  std::vector<mv::fs::FileInfo> entries;
  ASSERT_TRUE(f->list(share, entries));
  EXPECT_TRUE(entries.empty()) << entries.front().name;
  ASSERT_TRUE(put(*f, share + "\\a.tif", "whole"));
  const auto exclusive = f->openWrite(share + "\\a.tif", true);
  EXPECT_EQ(exclusive, nullptr);
  EXPECT_EQ(errno, EEXIST);
  struct stat st {};
  ASSERT_EQ(::stat((local + "/a.tif").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 5);
  // A writer whose process died: its temporary stays until the server starts again, while a
  // name that only looks alike stays for good.
  {
    const auto writer = f->openWrite(share + "\\b.tif", false);
    ASSERT_TRUE(writer && writer->write("part", 4));
    std::vector<mv::fs::FileInfo> hidden;
    ASSERT_TRUE(mv::fs::localFiles().list(local, hidden));
    const auto temporary = std::find_if(hidden.begin(), hidden.end(),
                                        [](const auto& e) { return e.name.starts_with(".b.tif"); });
    ASSERT_NE(temporary, hidden.end());
    ASSERT_EQ(::rename((local + "/" + temporary->name).c_str(), (local + "/.orphan").c_str()), 0);
    ASSERT_EQ(::link((local + "/.orphan").c_str(), (local + "/" + temporary->name + "7").c_str()),
              0);
  }
  const std::string lookalike = local + "/.notes.part-one-2";
  ASSERT_EQ(::link((local + "/.orphan").c_str(), lookalike.c_str()), 0);
  reopen();
  std::vector<mv::fs::FileInfo> after;
  ASSERT_TRUE(mv::fs::localFiles().list(local, after));
  std::vector<std::string> names;
  for (const auto& e : after) names.push_back(e.name);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".notes.part-one-2", ".orphan", "a.tif"}));
}

TEST_F(ShareFilesTest, TheEmbeddedServerAnswersLocalPathsAndServesNoFiles) {
  core->serveSharesAs("");
  const std::string share = open(*s, 7);
  EXPECT_EQ(share, folder() + "/shares/" + kBook + "/TagPageTBL/7");
  EXPECT_EQ(files(s), nullptr);
}

}  // namespace
}  // namespace mvtest::server

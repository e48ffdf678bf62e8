#include "rpc/remote_files.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <set>

#include "rpc/convert.h"

namespace mv::rpc {
namespace {

bool answered(int32_t error) {
  if (error == 0) return true;
  errno = error;
  return false;
}

// What a reader or writer holds of its link. When the link goes (its server is released), the
// files object lets go of every reader's and writer's capabilities while the link's event loop
// still runs, and later calls fail with EIO: a reader or writer may outlive its link.
class Open {
 public:
  virtual void drop() noexcept = 0;

 protected:
  ~Open() = default;
};

struct LinkRef {
  RemoteLink* link;
  std::set<Open*> open;
};

class RemoteReader final : public fs::FileReader, Open {
 public:
  RemoteReader(std::shared_ptr<LinkRef> ref, ::FileReader::Client reader, fs::FileInfo info)
      : ref_(std::move(ref)), reader_(kj::mv(reader)), info_(std::move(info)) {
    ref_->open.insert(this);
  }
  ~RemoteReader() noexcept override {
    drop();
    ref_->open.erase(this);
  }
  void drop() noexcept override {
    QuietKj quiet;
    try {
      current_.reset();
      pending_.clear();
      reader_ = nullptr;
    } catch (...) {  // cancelling on a broken link may complain; the reader is going away
    }
    dropped_ = true;
  }

  std::ptrdiff_t read(char* data, std::size_t size) override {
    QuietKj quiet;
    if (dropped_ || ref_->link == nullptr) {
      errno = EIO;
      return -1;
    }
    RemoteLink& link_ = *ref_->link;
    std::size_t got = 0;
    try {
      while (got < size) {
        if (current_ == nullptr) {
          if (ended_) break;
          fill();
          current_ = std::make_unique<Answer>(pending_.front().wait(link_.waitScope()));
          pending_.pop_front();
          offset_ = 0;
          if (!answered(current_->getError())) return -1;
          if (current_->getData().size() < kFileBlock) ended_ = true;
        }
        const auto bytes = current_->getData();
        const std::size_t n = std::min(size - got, bytes.size() - offset_);
        std::memcpy(data + got, bytes.begin() + offset_, n);
        got += n;
        offset_ += n;
        if (offset_ == bytes.size()) current_ = nullptr;
      }
    } catch (const kj::Exception& e) {
      link_.failed(e);
      errno = EIO;
      return -1;
    }
    return static_cast<std::ptrdiff_t>(got);
  }
  const fs::FileInfo& info() const override { return info_; }

 private:
  // Keeps kFileReadAhead reads on their way; the daemon answers a capability's calls in order.
  void fill() {
    while (!ended_ && pending_.size() < kFileReadAhead) {
      auto request = reader_.readRequest();
      request.setSize(kFileBlock);
      pending_.push_back(request.send());
    }
  }

  using Answer = capnp::Response<::FileReader::ReadResults>;
  std::shared_ptr<LinkRef> ref_;
  ::FileReader::Client reader_;
  fs::FileInfo info_;
  std::deque<capnp::RemotePromise<::FileReader::ReadResults>> pending_;
  std::unique_ptr<Answer> current_;
  std::size_t offset_ = 0;
  bool ended_ = false;
  bool dropped_ = false;
};

class RemoteWriter final : public fs::FileWriter, Open {
 public:
  RemoteWriter(std::shared_ptr<LinkRef> ref, ::FileWriter::Client writer)
      : ref_(std::move(ref)), writer_(kj::mv(writer)) {
    ref_->open.insert(this);
  }
  // Dropped without commit, the daemon removes what was written.
  ~RemoteWriter() noexcept override {
    drop();
    ref_->open.erase(this);
  }
  void drop() noexcept override {
    QuietKj quiet;
    try {
      inFlight_.clear();
      writer_ = nullptr;
    } catch (...) {  // a broken link may complain; the writer is going away
    }
    dropped_ = true;
  }

  bool write(const char* data, std::size_t size) override {
    return onLink([&](RemoteLink& link) {
      while (size > 0) {
        const std::size_t n = std::min<std::size_t>(size, kFileBlock);
        auto request = writer_.writeRequest();
        request.setData(kj::arrayPtr(reinterpret_cast<const kj::byte*>(data), n));
        // A few blocks stay on their way while the next is read: the wait for the oldest is the
        // flow control, and bounds what is held to kFileWriteAhead blocks.
        inFlight_.push_back(request.send());
        drain(link, kFileWriteAhead);
        data += n;
        size -= n;
      }
      return true;
    });
  }
  bool commit(std::time_t lastWrite) override {
    return onLink([&](RemoteLink& link) {
      drain(link, 0);
      auto request = writer_.commitRequest();
      request.setLastWrite(lastWrite);
      return answered(request.send().wait(link.waitScope()).getError());
    });
  }

 private:
  template <typename Work>
  bool onLink(Work&& work) {
    QuietKj quiet;
    if (dropped_ || ref_->link == nullptr) {
      errno = EIO;
      return false;
    }
    try {
      return work(*ref_->link);
    } catch (const kj::Exception& e) {
      ref_->link->failed(e);
      errno = EIO;
      return false;
    }
  }
  void drain(RemoteLink& link, std::size_t keep) {
    while (inFlight_.size() > keep) {
      auto oldest = kj::mv(inFlight_.front());
      inFlight_.pop_front();
      oldest.wait(link.waitScope());
    }
  }

  std::shared_ptr<LinkRef> ref_;
  ::FileWriter::Client writer_;
  std::deque<kj::Promise<void>> inFlight_;
  bool dropped_ = false;
};

class RemoteFiles final : public fs::FileSystem {
 public:
  explicit RemoteFiles(RemoteLink& link) : ref_(std::make_shared<LinkRef>(LinkRef{&link, {}})) {}
  ~RemoteFiles() noexcept override { disconnect(); }

  void disconnect() noexcept {
    QuietKj quiet;
    for (Open* open : ref_->open) open->drop();
    try {
      files_.reset();
    } catch (...) {  // a broken link may complain; the link is going away
    }
    ref_->link = nullptr;
  }

  bool stat(std::string_view path, fs::FileInfo& info) override {
    return run([&](::Files::Client& f) {
      auto request = f.statRequest();
      request.setPath(textOf(path));
      auto answer = request.send().wait(ws());
      if (!answered(answer.getError())) return false;
      info = takeEntry(answer.getEntry());
      return true;
    });
  }
  bool list(std::string_view folder, std::vector<fs::FileInfo>& entries) override {
    entries.clear();
    return run([&](::Files::Client& f) {
      auto request = f.listRequest();
      request.setPath(textOf(folder));
      auto answer = request.send().wait(ws());
      if (!answered(answer.getError())) return false;
      for (auto e : answer.getEntries()) entries.push_back(takeEntry(e));
      return true;
    });
  }
  std::unique_ptr<fs::FileReader> openRead(std::string_view path) override {
    std::unique_ptr<fs::FileReader> reader;
    (void)run([&](::Files::Client& f) {
      auto request = f.openReadRequest();
      request.setPath(textOf(path));
      auto answer = request.send().wait(ws());
      if (!answered(answer.getError())) return false;
      reader =
          std::make_unique<RemoteReader>(ref_, answer.getReader(), takeEntry(answer.getEntry()));
      return true;
    });
    return reader;
  }
  std::unique_ptr<fs::FileWriter> openWrite(std::string_view path, bool failIfExists) override {
    std::unique_ptr<fs::FileWriter> writer;
    (void)run([&](::Files::Client& f) {
      auto request = f.openWriteRequest();
      request.setPath(textOf(path));
      request.setFailIfExists(failIfExists);
      auto answer = request.send().wait(ws());
      if (!answered(answer.getError())) return false;
      writer = std::make_unique<RemoteWriter>(ref_, answer.getWriter());
      return true;
    });
    return writer;
  }
  bool copy(std::string_view from, std::string_view to, bool failIfExists) override {
    return run([&](::Files::Client& f) {
      auto request = f.copyRequest();
      request.setFrom(textOf(from));
      request.setTo(textOf(to));
      request.setFailIfExists(failIfExists);
      return answered(request.send().wait(ws()).getError());
    });
  }
  bool setTimes(std::string_view path, std::time_t lastWrite) override {
    return run([&](::Files::Client& f) {
      auto request = f.setTimesRequest();
      request.setPath(textOf(path));
      request.setLastWrite(lastWrite);
      return answered(request.send().wait(ws()).getError());
    });
  }
  bool makeWritable(std::string_view path) override {
    return onPath(path, [](::Files::Client& f) { return f.makeWritableRequest(); });
  }
  bool createDirectory(std::string_view path) override {
    return onPath(path, [](::Files::Client& f) { return f.createDirectoryRequest(); });
  }
  bool removeDirectory(std::string_view path) override {
    return onPath(path, [](::Files::Client& f) { return f.removeDirectoryRequest(); });
  }
  bool deleteFile(std::string_view path) override {
    return onPath(path, [](::Files::Client& f) { return f.deleteFileRequest(); });
  }
  bool rename(std::string_view from, std::string_view to) override {
    return run([&](::Files::Client& f) {
      auto request = f.renameRequest();
      request.setFrom(textOf(from));
      request.setTo(textOf(to));
      return answered(request.send().wait(ws()).getError());
    });
  }

 private:
  kj::WaitScope& ws() { return ref_->link->waitScope(); }
  static capnp::Text::Reader textOf(std::string_view s) { return {s.data(), s.size()}; }

  template <typename Work>
  bool run(Work&& work) {
    QuietKj quiet;
    RemoteLink* link_ = ref_->link;
    if (link_ == nullptr || !link_->ready()) {
      errno = EIO;
      return false;
    }
    try {
      if (files_.get() == nullptr) {
        files_ =
            std::make_unique<::Files::Client>(link_->server()->filesRequest().send().getFiles());
      }
      return work(*files_);
    } catch (const kj::Exception& e) {
      link_->failed(e);
      errno = EIO;
      return false;
    }
  }
  template <typename MakeRequest>
  bool onPath(std::string_view path, MakeRequest&& make) {
    return run([&](::Files::Client& f) {
      auto request = make(f);
      request.setPath(textOf(path));
      return answered(request.send().wait(ws()).getError());
    });
  }

  std::shared_ptr<LinkRef> ref_;
  std::unique_ptr<::Files::Client> files_;
};

}  // namespace

std::shared_ptr<fs::FileSystem> makeRemoteFiles(RemoteLink& link) {
  return std::make_shared<RemoteFiles>(link);
}

void disconnectRemoteFiles(fs::FileSystem& files) { static_cast<RemoteFiles&>(files).disconnect(); }

}  // namespace mv::rpc

// The production HTTP client over libcurl's easy interface.
#include "platform/thread_exit.hpp"
#include "zonaris/platform/curl_http.hpp"

#include <curl/curl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <exception>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace zonaris::platform {

// The sockets of exchanges in flight, opened and closed through libcurl's socket callbacks so
// that a cancel can shut them down (which wakes libcurl's wait at once) while they are
// certainly still open: opening, closing and cancelling all hold the mutex.
struct CurlCancel::Sockets {
  std::mutex mutex;
  std::set<curl_socket_t> open;
  bool cancelled = false;
};

CurlCancel::CurlCancel() : sockets_(std::make_unique<Sockets>()) {}
CurlCancel::~CurlCancel() = default;

void CurlCancel::cancel() {
  std::lock_guard lock(sockets_->mutex);
  sockets_->cancelled = true;
  for (const curl_socket_t fd : sockets_->open)
    ::shutdown(fd, SHUT_RDWR);
}

bool CurlCancel::cancelled() const {
  std::lock_guard lock(sockets_->mutex);
  return sockets_->cancelled;
}

namespace {

constexpr const char* kCancelled = "cancelled: the platform is shutting down";

curl_socket_t openSocket(void* data, curlsocktype, curl_sockaddr* address) noexcept {
  auto& sockets = static_cast<CurlCancel*>(data)->sockets();
  std::lock_guard lock(sockets.mutex);
  if (sockets.cancelled)
    return CURL_SOCKET_BAD;
  const curl_socket_t fd =
      ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd != CURL_SOCKET_BAD) {
    try {
      sockets.open.insert(fd);
    } catch (...) {
      ::close(fd);
      return CURL_SOCKET_BAD;
    }
  }
  return fd;
}

int closeSocket(void* data, curl_socket_t fd) noexcept {
  auto& sockets = static_cast<CurlCancel*>(data)->sockets();
  std::lock_guard lock(sockets.mutex);
  sockets.open.erase(fd);
  return ::close(fd);
}

// Also catches a cancel while no socket is open yet (a name lookup).
int checkCancelled(void* data, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept {
  return static_cast<CurlCancel*>(data)->cancelled() ? 1 : 0;
}

struct EasyDeleter {
  void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
struct SlistDeleter {
  void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
// Move-only owners: a handle belongs to one request on one thread and is freed exactly once.
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using HeaderList = std::unique_ptr<curl_slist, SlistDeleter>;

// libcurl's global state is set up once per process, before the first handle exists.
void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct BodySink {
  CURL* handle = nullptr;
  std::string body;
  std::size_t limit = 0;
  bool overLimit = false;
};

// Returning less than it was given makes libcurl abort the transfer with CURLE_WRITE_ERROR.
// Nothing may be thrown back through libcurl's C frames.
std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* userdata) noexcept {
  auto* sink = static_cast<BodySink*>(userdata);
  const std::size_t bytes = size * count;
  if (bytes > sink->limit - sink->body.size()) {
    sink->overLimit = true;
    return 0;
  }
  try {
    // A body of announced length is stored once, not copied each time the text outgrows
    // its buffer: a catalogue of thousands of fences is megabytes.
    curl_off_t announced = -1;
    if (sink->body.empty() &&
        curl_easy_getinfo(sink->handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) ==
            CURLE_OK &&
        announced > 0 && static_cast<std::size_t>(announced) <= sink->limit)
      sink->body.reserve(static_cast<std::size_t>(announced));
    sink->body.append(data, bytes);
  } catch (...) {
    return 0;
  }
  return bytes;
}

bool sameHeaderName(const std::string& a, const char* b) {
  const std::string other(b);
  if (a.size() != other.size())
    return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(other[i])))
      return false;
  }
  return true;
}

class CurlHttpClient final : public HttpClient {
 public:
  explicit CurlHttpClient(CurlHttpOptions options) : options_(options) {}

  HttpResponse send(const HttpRequest& request) override {
    try {
      return perform(request);
    } catch (const std::exception& e) {
      return failure(e.what());
    } catch (...) {
      if (endingThread())
        throw;
      return failure("unknown failure");
    }
  }

 private:
  static HttpResponse failure(std::string message) {
    HttpResponse response;
    response.transportError = true;
    response.errorMessage = std::move(message);
    return response;
  }

  HttpResponse perform(const HttpRequest& request) const {
    if (options_.cancel && options_.cancel->cancelled())
      return failure(kCancelled);
    EasyHandle easy(curl_easy_init());
    if (!easy)
      return failure("curl_easy_init failed");
    CURL* h = easy.get();

    char errorBuffer[CURL_ERROR_SIZE] = {};
    BodySink sink;
    sink.handle = h;
    sink.limit = options_.maxBodyBytes;

    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
    // Signals cannot be used safely by a library running on its callers' threads.
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &appendBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink);
    // Refuse early when the server announces a body over the cap; the sink catches the rest.
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(options_.maxBodyBytes));
    // libcurl sends the header and decodes the answer; the cap applies to the decoded body
    // (the sink), and a body that decodes to more is refused like any other.
    if (request.acceptCompressed)
      curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "gzip");
    if (options_.cancel) {
      void* cancel = options_.cancel.get();
      curl_easy_setopt(h, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
      curl_easy_setopt(h, CURLOPT_OPENSOCKETDATA, cancel);
      curl_easy_setopt(h, CURLOPT_CLOSESOCKETFUNCTION, &closeSocket);
      curl_easy_setopt(h, CURLOPT_CLOSESOCKETDATA, cancel);
      curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &checkCancelled);
      curl_easy_setopt(h, CURLOPT_XFERINFODATA, cancel);
      curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    }

    bool hasContentType = false;
    HeaderList headers;
    auto addHeader = [&headers](const std::string& line) {
      curl_slist* grown = curl_slist_append(headers.get(), line.c_str());
      if (!grown)
        return false;
      (void)headers.release();
      headers.reset(grown);
      return true;
    };
    for (const auto& [name, value] : request.headers) {
      hasContentType = hasContentType || sameHeaderName(name, "Content-Type");
      if (!addHeader(name + ": " + value))
        return failure("out of memory building headers");
    }

    if (request.method == "GET") {
      curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    } else if (request.method == "POST") {
      curl_easy_setopt(h, CURLOPT_POST, 1L);
      curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(request.body.size()));
      curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.body.c_str());
      // Send exactly the headers asked for: no form content type of libcurl's own, and no
      // "Expect: 100-continue" round trip before larger bodies.
      if (!hasContentType && !addHeader("Content-Type:"))
        return failure("out of memory building headers");
      if (!addHeader("Expect:"))
        return failure("out of memory building headers");
    } else {
      curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str());
      if (!request.body.empty()) {
        curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.body.c_str());
      }
    }
    if (headers)
      curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());

    const CURLcode result = curl_easy_perform(h);
    if (result != CURLE_OK) {
      // No complete answer: the status stays 0 even when a status line had arrived.
      std::string message = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(result);
      if (options_.cancel && options_.cancel->cancelled())
        message = kCancelled;
      if (sink.overLimit || result == CURLE_FILESIZE_EXCEEDED)
        message = "response body over " + std::to_string(options_.maxBodyBytes) + " bytes";
      return failure(std::move(message));
    }

    HttpResponse response;
    long status = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    response.status = status;
    // The body as transferred: libcurl counts the bytes it received before decoding them.
    curl_off_t received = 0;
    if (curl_easy_getinfo(h, CURLINFO_SIZE_DOWNLOAD_T, &received) == CURLE_OK && received > 0)
      response.wireBodyBytes = static_cast<std::uint64_t>(received);
    response.body = std::move(sink.body);
    return response;
  }

  const CurlHttpOptions options_;
};

}  // namespace

std::shared_ptr<HttpClient> makeCurlHttpClient(const CurlHttpOptions& options) {
  initCurlOnce();
  return std::make_shared<CurlHttpClient>(options);
}

}  // namespace zonaris::platform

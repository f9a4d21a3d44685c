#include "support/recording_server.hpp"

#include <httplib.h>

#include <gtest/gtest.h>

namespace zonaris::test {

std::string RecordedRequest::header(const std::string& name) const {
  auto it = headers.find(name);
  return it == headers.end() ? std::string() : it->second;
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  return headers.find(name) != headers.end();
}

struct RecordingServer::Impl {
  httplib::Server server;
  std::thread thread;
  mutable std::mutex mutex;
  std::vector<RecordedRequest> recorded;
  std::map<std::pair<std::string, std::string>, Handler> handlers;

  void serve(const httplib::Request& req, httplib::Response& res) {
    RecordedRequest r;
    r.method = req.method;
    r.path = req.path;
    r.target = req.target;
    for (const auto& [k, v] : req.headers)
      r.headers.emplace(k, v);
    r.body = req.body;
    Handler handler;
    {
      std::lock_guard lock(mutex);
      recorded.push_back(r);
      auto it = handlers.find({r.method, r.path});
      if (it != handlers.end())
        handler = it->second;
    }
    if (!handler) {
      ADD_FAILURE() << "RecordingServer: unexpected request " << r.method << " " << r.target;
      res.status = 599;
      return;
    }
    ScriptedResponse answer = handler(r);
    if (answer.delay.count() > 0)
      std::this_thread::sleep_for(answer.delay);
    res.status = answer.status;
    res.set_content(answer.body, answer.contentType.c_str());
  }
};

RecordingServer::RecordingServer() : impl_(std::make_unique<Impl>()) {
  auto handler = [this](const httplib::Request& req, httplib::Response& res) {
    impl_->serve(req, res);
  };
  impl_->server.Get(".*", handler);
  impl_->server.Post(".*", handler);
  port_ = impl_->server.bind_to_any_port("127.0.0.1");
  impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
  // stop() only works on a running server, so wait until the accept loop has started.
  while (!impl_->server.is_running())
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

RecordingServer::~RecordingServer() {
  stop();
}

void RecordingServer::stop() {
  impl_->server.stop();
  if (impl_->thread.joinable())
    impl_->thread.join();
}

std::string RecordingServer::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

void RecordingServer::on(const std::string& method, const std::string& path, Handler handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->handlers[{method, path}] = std::move(handler);
}

void RecordingServer::respond(const std::string& method, const std::string& path,
                              ScriptedResponse response) {
  on(method, path, [response](const RecordedRequest&) { return response; });
}

void RecordingServer::respondSequence(const std::string& method, const std::string& path,
                                      std::vector<ScriptedResponse> responses) {
  auto state = std::make_shared<std::pair<std::mutex, std::size_t>>();
  auto list = std::make_shared<std::vector<ScriptedResponse>>(std::move(responses));
  on(method, path, [state, list](const RecordedRequest&) {
    std::lock_guard lock(state->first);
    const std::size_t i = std::min(state->second, list->size() - 1);
    ++state->second;
    return (*list)[i];
  });
}

std::vector<RecordedRequest> RecordingServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->recorded;
}

std::vector<RecordedRequest> RecordingServer::requests(const std::string& method,
                                                       const std::string& path) const {
  std::vector<RecordedRequest> out;
  for (auto& r : requests()) {
    if (r.method == method && r.path == path)
      out.push_back(r);
  }
  return out;
}

std::size_t RecordingServer::count(const std::string& method, const std::string& path) const {
  return requests(method, path).size();
}

}  // namespace zonaris::test

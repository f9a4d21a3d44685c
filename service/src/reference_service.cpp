#include "zonaris/service/reference_service.hpp"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <httplib.h>
#include <sys/socket.h>

#include "fences/geometry.hpp"
#include "zonaris/service/event_rules.hpp"
#include "zonaris/service/fence_set.hpp"
#include "zonaris/service/json_read.hpp"
#include "zonaris/service/store.hpp"

namespace zonaris::service_tool {

namespace {

using nlohmann::json;

constexpr std::size_t kMaxBodyBytes = 1024 * 1024;
constexpr std::size_t kMaxAppKeyLength = 1024;
constexpr std::int64_t kMaxBeaconNumber = 65535;

std::string dump(const json& j) {
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

ServiceResponse answer(int status, const json& body) {
  return {status, dump(body)};
}

ServiceResponse problem(int status, std::string_view text) {
  return answer(status, json{{"error", text}});
}

// The HTTP server, with a listen queue as long as the system allows: the library listens with a
// backlog of 5, and with tens of clients opening connections at once the kernel dropped the
// rest, which the clients saw as transport errors.
class Listener : public httplib::Server {
 public:
  // After a bind: listening again on a listening socket sets its backlog anew.
  void lengthenQueue() const { ::listen(svr_sock_.load(), SOMAXCONN); }
};

ServiceResponse badRequest(std::string_view text) {
  return problem(400, text);
}

// A whole query parameter as a number; partial or empty text is not one.
template <typename T>
std::optional<T> parseNumber(const std::map<std::string, std::string>& query, const char* key) {
  auto it = query.find(key);
  if (it == query.end())
    return std::nullopt;
  const std::string& text = it->second;
  T value{};
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || text.empty())
    return std::nullopt;
  return value;
}

bool validLatitude(double v) {
  return std::isfinite(v) && v >= -90.0 && v <= 90.0;
}
bool validLongitude(double v) {
  return std::isfinite(v) && v >= -180.0 && v <= 180.0;
}
bool validRadius(double v) {
  return std::isfinite(v) && v >= 0.0 && v <= kMaxRadiusMetres;
}

std::string lowerCase(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// A JSON object body, or the reason it is not one.
std::optional<json> parseObject(std::string_view body, std::string& error) {
  auto doc = json::parse(body, nullptr, false);
  if (doc.is_discarded()) {
    error = "the body is not JSON";
    return std::nullopt;
  }
  if (!doc.is_object()) {
    error = "the body must be a JSON object";
    return std::nullopt;
  }
  return doc;
}

// What an observation says, once checked.
struct Observation {
  double latitude = 0.0;
  double longitude = 0.0;
  double accuracy = 0.0;
  std::vector<ObservedBeacon> beacons;
  std::int64_t install = 0;
};

std::optional<Observation> readObservation(const json& doc, std::string& error) {
  Observation o;
  auto gps = doc.find("gps");
  if (gps == doc.end() || !gps->is_object()) {
    error = "\"gps\" must be an object with \"latitude\", \"longitude\" and \"radius\"";
    return std::nullopt;
  }
  auto number = [&](const char* key) -> std::optional<double> {
    auto it = gps->find(key);
    return it == gps->end() ? std::nullopt : json_read::finite(*it);
  };
  auto lat = number("latitude");
  auto lon = number("longitude");
  auto accuracy = number("radius");
  if (!lat || !validLatitude(*lat)) {
    error = "\"gps\".\"latitude\" must be a number of degrees from -90 to 90";
    return std::nullopt;
  }
  if (!lon || !validLongitude(*lon)) {
    error = "\"gps\".\"longitude\" must be a number of degrees from -180 to 180";
    return std::nullopt;
  }
  if (!accuracy || !validRadius(*accuracy)) {
    error =
        fmt::format("\"gps\".\"radius\" must be a number of metres from 0 to {}", kMaxRadiusMetres);
    return std::nullopt;
  }
  o.latitude = *lat;
  o.longitude = *lon;
  o.accuracy = *accuracy;

  auto beacons = doc.find("beacons");
  if (beacons == doc.end() || !beacons->is_array()) {
    error = "\"beacons\" must be an array";
    return std::nullopt;
  }
  for (std::size_t i = 0; i < beacons->size(); ++i) {
    const json& b = (*beacons)[i];
    const bool shaped = b.is_object() && b.contains("uuid") && b["uuid"].is_string() &&
                        b.contains("proximity") && b["proximity"].is_string() &&
                        b.contains("major") && b.contains("minor");
    auto major = shaped ? json_read::intIn(b["major"], 0, kMaxBeaconNumber) : std::nullopt;
    auto minor = shaped ? json_read::intIn(b["minor"], 0, kMaxBeaconNumber) : std::nullopt;
    if (!major || !minor) {
      error = fmt::format(
          "\"beacons\"[{}] must be an object with a string \"uuid\", \"major\" and \"minor\" "
          "from 0 to {}, and a string \"proximity\"",
          i, kMaxBeaconNumber);
      return std::nullopt;
    }
    o.beacons.push_back({lowerCase(b["uuid"].get<std::string>()), *major, *minor});
  }

  // The tags; a client that never got any may send null.
  auto data = doc.find("data");
  if (data == doc.end() || !(data->is_object() || data->is_null())) {
    error = "\"data\" must be an object";
    return std::nullopt;
  }

  auto install = doc.find("install");
  auto installId = install == doc.end() ? std::nullopt : json_read::int64(*install);
  if (!installId) {
    error = "\"install\" must be an integer install id";
    return std::nullopt;
  }
  o.install = *installId;
  return o;
}

std::optional<std::string> checkErrorReport(const json& doc, std::int64_t& installId) {
  auto install = doc.find("intall_id");
  auto id = install == doc.end() ? std::nullopt : json_read::int64(*install);
  if (!id)
    return "\"intall_id\" must be an integer";
  installId = *id;
  auto data = doc.find("data");
  if (data == doc.end() || !data->is_object())
    return "\"data\" must be an object with \"reason\", \"callstack\" and \"variables_state\"";
  auto reason = data->find("reason");
  if (reason == data->end() || !reason->is_string())
    return "\"data\".\"reason\" must be a string";
  auto stack = data->find("callstack");
  if (stack == data->end() || !stack->is_array() ||
      !std::all_of(stack->begin(), stack->end(), [](const json& f) { return f.is_string(); }))
    return "\"data\".\"callstack\" must be an array of strings";
  auto variables = data->find("variables_state");
  if (variables == data->end() || !variables->is_array() ||
      !std::all_of(variables->begin(), variables->end(), [](const json& v) {
        return v.is_object() && v.contains("name") && v["name"].is_string() && v.contains("value");
      }))
    return "\"data\".\"variables_state\" must be an array of {\"name\", \"value\"} objects";
  auto version = doc.find("version");
  if (version == doc.end() || !version->is_string())
    return "\"version\" must be a string";
  return std::nullopt;
}

}  // namespace

struct ReferenceService::Impl {
  std::string error;
  std::vector<Fence> fences;
  // Beacon fences are decided by the beacons seen, not by geometry, so they are always measured.
  std::vector<std::size_t> beaconFences;
  double maxPointRadius = 0.0;
  std::size_t maxFences = 0;  // 0: no cap, file order
  std::function<std::chrono::system_clock::time_point()> now;
  ConfirmRule confirm = ConfirmRule::Robust;
  RobustParams robust;

  std::unique_ptr<Store> store;

  std::mutex serverMutex;  // start/stop
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  std::atomic<int> port{-1};
  bool started = false;

  std::int64_t nowMs() const {
    const auto t = now ? now() : std::chrono::system_clock::now();
    return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
  }

  void indexFences() {
    for (std::size_t i = 0; i < fences.size(); ++i) {
      const Fence& f = fences[i];
      if (f.type == "beacon")
        beaconFences.push_back(i);
      if (f.type == "point")
        maxPointRadius = std::max(maxPointRadius, f.radius);
    }
  }

  static ServiceResponse storeFailure(std::string_view why) {
    return problem(500, fmt::format("the database failed: {}", why));
  }
  static ServiceResponse storeFailure(const StoreSession& session) {
    return storeFailure(session.lastError());
  }
  // Gives up the transaction and answers 500.
  static ServiceResponse abandon(StoreSession& session) {
    auto response = storeFailure(session);
    session.rollback();
    return response;
  }

  // A session for one request, or the 500 that answers it when none can be had.
  StoreSessionPtr session(std::optional<ServiceResponse>& failure) const {
    std::string why;
    auto s = store->session(why);
    if (!s)
      failure = storeFailure(why);
    return s;
  }

  // A session in a transaction that holds the install's row, so that requests of one install
  // are taken one after the other; or the 500 that answers the request when that fails.
  StoreSessionPtr heldSession(std::int64_t install, std::optional<ServiceResponse>& failure) const {
    auto s = session(failure);
    if (!s)
      return s;
    if (!s->begin()) {
      failure = storeFailure(*s);
      return nullptr;
    }
    if (!s->holdInstall(install, nowMs())) {
      failure = abandon(*s);
      return nullptr;
    }
    return s;
  }

  ServiceResponse registerInstall(std::string_view body) const {
    std::string problem;
    auto doc = parseObject(body, problem);
    if (!doc)
      return badRequest(problem);
    auto key = doc->find("appKey");
    if (key == doc->end() || !key->is_string() || key->get_ref<const std::string&>().empty() ||
        key->get_ref<const std::string&>().size() > kMaxAppKeyLength)
      return badRequest(fmt::format("\"appKey\" must be a non-empty string of at most {} bytes",
                                    kMaxAppKeyLength));
    std::optional<ServiceResponse> failure;
    auto s = session(failure);
    if (!s)
      return *failure;
    auto id = s->addInstall(key->get_ref<const std::string&>(), nowMs());
    if (!id)
      return storeFailure(*s);
    return answer(201, json{{"id", *id}});
  }

  // Ids below 1 were never issued and are refused (400). An id of 1 or more that the service
  // does not know is adopted: a device's store can outlive the service's state (an in-memory
  // database, a fresh --db), and refusing the id would leave that device retrying forever.
  static std::optional<ServiceResponse> refuseUnissued(std::int64_t id) {
    if (id < 1)
      return badRequest(fmt::format("install id {} was never issued; register first", id));
    return std::nullopt;
  }

  ServiceResponse fenceQuery(const std::map<std::string, std::string>& query) const {
    auto install = parseNumber<std::int64_t>(query, "install");
    if (!install)
      return badRequest("\"install\" must be an integer install id");
    auto lat = parseNumber<double>(query, "lat");
    if (!lat || !validLatitude(*lat))
      return badRequest("\"lat\" must be a number of degrees from -90 to 90");
    auto lon = parseNumber<double>(query, "long");
    if (!lon || !validLongitude(*lon))
      return badRequest("\"long\" must be a number of degrees from -180 to 180");
    auto radius = parseNumber<double>(query, "radius");
    if (!radius || !validRadius(*radius))
      return badRequest(
          fmt::format("\"radius\" must be a number of metres from 0 to {}", kMaxRadiusMetres));
    if (auto refused = refuseUnissued(*install))
      return *refused;
    std::optional<ServiceResponse> failure;
    auto s = heldSession(*install, failure);
    if (!s)
      return *failure;
    // The client resets its fence flags from this answer; the robust rules let its next
    // observation decide alone.
    if (confirm == ConfirmRule::Robust) {
      auto track = s->installTrack(*install);
      if (!track)
        return abandon(*s);
      if (!track->fencesServed) {
        track->fencesServed = true;
        if (!s->saveInstallTrack(*install, *track))
          return abandon(*s);
      }
    }
    auto candidates = s->fencesNear(*lat, *lon, *radius);
    if (!candidates)
      return abandon(*s);
    if (!s->commit())
      return abandon(*s);
    s.reset();
    // Only the candidates are measured; the answer is the same as measuring every fence.
    const auto point = fmt::format("POINT ({:.16g} {:.16g})", *lon, *lat);
    std::vector<std::pair<double, std::size_t>> within;  // (metres, file index), in file order
    for (std::size_t i : *candidates) {
      auto measured = fences::distanceToGeometry(fences[i].location, point);
      if (measured.metres && *measured.metres <= *radius)
        within.emplace_back(*measured.metres, i);
    }
    if (maxFences > 0) {
      // Nearest first; the file index breaks ties, so the same query gets the same bytes.
      const auto kept =
          within.begin() + static_cast<std::ptrdiff_t>(std::min(maxFences, within.size()));
      std::partial_sort(within.begin(), kept, within.end());
      within.erase(kept, within.end());
    }
    json out = json::array();
    for (const auto& [metres, i] : within)
      out.push_back(fences[i].record);
    return answer(200, out);
  }

  ServiceResponse observe(std::string_view body) const {
    std::string problem;
    auto doc = parseObject(body, problem);
    if (!doc)
      return badRequest(problem);
    auto observation = readObservation(*doc, problem);
    if (!observation)
      return badRequest(problem);

    if (auto refused = refuseUnissued(observation->install))
      return *refused;
    // One session and one transaction: the install is held first, then its candidate fences
    // are picked and its state read, so an observation costs one connection and one commit.
    std::optional<ServiceResponse> failure;
    auto s = heldSession(observation->install, failure);
    if (!s)
      return *failure;
    // A fence can hold the device only when it lies within its radius (0 but for "point"
    // fences) of it; beacon fences go by the beacons seen.
    auto near = s->fencesNear(observation->latitude, observation->longitude, maxPointRadius);
    if (!near)
      return abandon(*s);
    std::vector<std::size_t> candidates = std::move(*near);
    candidates.insert(candidates.end(), beaconFences.begin(), beaconFences.end());
    std::vector<bool> inside(fences.size(), false);
    std::vector<bool> measured(fences.size(), false);
    // The robust rules need how far past the boundary the device is; fences that are not
    // candidates are measured below only when their state needs it.
    constexpr double kFar = std::numeric_limits<double>::infinity();
    std::vector<double> distance(fences.size(), kFar);
    for (std::size_t i : candidates) {
      const Fence& fence = fences[i];
      if (!fence.takesPart)
        continue;
      measured[i] = true;
      if (confirm == ConfirmRule::Exact || fence.type == "beacon") {
        inside[i] =
            isInside(fence, observation->latitude, observation->longitude, observation->beacons);
        continue;
      }
      distance[i] =
          boundaryDistance(fence, observation->latitude, observation->longitude).value_or(kFar);
      inside[i] = distance[i] <= 0.0;
    }

    const std::int64_t at = nowMs();
    auto states = s->fenceStates(observation->install);
    if (!states)
      return abandon(*s);
    const ObservationFix fix{at, observation->latitude, observation->longitude,
                             observation->accuracy};
    Judgement judgement;
    if (confirm == ConfirmRule::Robust) {
      auto track = s->installTrack(observation->install);
      if (!track)
        return abandon(*s);
      const InstallTrack before = *track;
      judgement = judge(*track, fix, robust);
      if (*track != before && !s->saveInstallTrack(observation->install, *track))
        return abandon(*s);
    }
    auto observationId = s->addObservation(observation->install, at, dump(*doc));
    if (!observationId)
      return abandon(*s);
    json events = json::array();
    for (std::size_t i = 0; i < fences.size(); ++i) {
      const Fence& fence = fences[i];
      if (!fence.takesPart)
        continue;
      FenceState state = (*states)[fence.id];
      const FenceState before = state;
      std::vector<std::string> yielded;
      if (confirm == ConfirmRule::Exact) {
        yielded = advance(state, inside[i], at, fence.dwellWindows);
      } else {
        const bool beacon = fence.type == "beacon";
        if (!beacon && !measured[i] && (state.inside || state.pendingCount != 0))
          distance[i] =
              boundaryDistance(fence, observation->latitude, observation->longitude).value_or(kFar);
        yielded = advanceRobust(state, {inside[i], distance[i], beacon}, fix, judgement,
                                fence.dwellWindows, robust);
      }
      for (const auto& type : yielded) {
        if (!s->addEvent(*observationId, fence.id, type))
          return abandon(*s);
        json event = {{"location_id", fence.id}, {"event_type", type}};
        if (fence.messages.is_object()) {
          auto message = fence.messages.find(type);
          if (message != fence.messages.end() && !message->empty())
            event["data"] = *message;
        }
        events.push_back(std::move(event));
      }
      if (state != before && !s->saveFenceState(observation->install, fence.id, state))
        return abandon(*s);
    }
    if (!s->commit())
      return abandon(*s);
    return answer(201, json{{"id", *observationId}, {"events", std::move(events)}});
  }

  ServiceResponse errorReport(std::string_view body) const {
    std::string problem;
    auto doc = parseObject(body, problem);
    if (!doc)
      return badRequest(problem);
    std::int64_t installId = 0;
    if (auto wrong = checkErrorReport(*doc, installId))
      return badRequest(*wrong);
    // Reports may come before registration (install id below 1), so the id is not checked.
    std::optional<ServiceResponse> failure;
    auto s = session(failure);
    if (!s)
      return *failure;
    auto id = s->addErrorReport(installId, nowMs(), dump(*doc));
    if (!id)
      return storeFailure(*s);
    return answer(201, json{{"id", *id}});
  }
};

ReferenceService::ReferenceService(ServiceOptions options) : impl_(std::make_unique<Impl>()) {
  impl_->now = std::move(options.now);
  impl_->maxFences = options.maxFences;
  impl_->confirm = options.confirm;
  impl_->robust = options.robust;
  std::string source = "fences";
  std::optional<json> fromFile;
  if (!options.fencesFile.empty()) {
    source = options.fencesFile;
    fromFile = readFencesFile(options.fencesFile, impl_->error);
    if (!fromFile)
      return;
  }
  auto fences = parseFences(fromFile ? *fromFile : options.fences, source, impl_->error);
  if (!fences)
    return;
  impl_->fences = std::move(*fences);
  impl_->indexFences();
  impl_->store = options.openStore ? options.openStore(impl_->fences, impl_->error)
                                   : openSqliteStore(options.dbPath, impl_->fences, impl_->error);
}

ReferenceService::~ReferenceService() {
  stop();
}

bool ReferenceService::ok() const {
  return impl_->store != nullptr;
}

const std::string& ReferenceService::error() const {
  return impl_->error;
}

ServiceResponse ReferenceService::handle(std::string_view method, std::string_view path,
                                         const std::map<std::string, std::string>& query,
                                         std::string_view body) const {
  if (!ok())
    return problem(500, impl_->error);
  if (body.size() > kMaxBodyBytes)
    return problem(413, fmt::format("the body is larger than {} bytes", kMaxBodyBytes));

  struct Route {
    std::string_view path;
    std::string_view method;
  };
  static constexpr Route kRoutes[] = {{"/install", "POST"},
                                      {"/install/location", "GET"},
                                      {"/observation", "POST"},
                                      {"/install/error", "POST"}};
  auto route = std::find_if(std::begin(kRoutes), std::end(kRoutes),
                            [&](const Route& r) { return r.path == path; });
  if (route == std::end(kRoutes))
    return problem(404, fmt::format("no such path: {}", path));
  if (route->method != method)
    return problem(405, fmt::format("{} takes {}, not {}", path, route->method, method));

  if (path == "/install")
    return impl_->registerInstall(body);
  if (path == "/install/location")
    return impl_->fenceQuery(query);
  if (path == "/observation")
    return impl_->observe(body);
  return impl_->errorReport(body);
}

int ReferenceService::start(int port) {
  std::lock_guard lock(impl_->serverMutex);
  if (!ok())
    return -1;
  if (impl_->started) {
    impl_->error = "the service was already started";
    return -1;
  }
  auto server = std::make_unique<Listener>();
  auto serve = [this](const httplib::Request& req, httplib::Response& res) {
    std::map<std::string, std::string> query;
    for (const auto& [key, value] : req.params)
      query.emplace(key, value);  // the first of repeated keys counts
    auto response = handle(req.method, req.path, query, req.body);
    res.status = response.status;
    res.set_content(response.body, "application/json");
  };
  server->Get(".*", serve);
  server->Post(".*", serve);
  server->Put(".*", serve);
  server->Delete(".*", serve);
  server->Patch(".*", serve);
  server->set_payload_max_length(kMaxBodyBytes);
  // cpp-httplib sends an answer in more than one write; with Nagle's algorithm the last part
  // waited for the client's delayed acknowledgement, some 40 ms on Linux, which capped each
  // keep-alive connection at about 23 answers a second.
  server->set_tcp_nodelay(true);
  server->set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        res.status = 500;
        res.set_content(R"({"error":"internal error"})", "application/json");
      });

  int bound = -1;
  if (port == 0)
    bound = server->bind_to_any_port("127.0.0.1");
  else if (port > 0 && port <= 65535 && server->bind_to_port("127.0.0.1", port))
    bound = port;
  if (bound <= 0) {
    impl_->error = fmt::format("cannot listen on 127.0.0.1:{}", port);
    return -1;
  }
  server->lengthenQueue();
  impl_->started = true;
  impl_->server = std::move(server);
  impl_->port = bound;
  auto finished = std::make_shared<std::atomic<bool>>(false);
  impl_->thread = std::thread([s = impl_->server.get(), finished] {
    s->listen_after_bind();
    finished->store(true);
  });
  // `stop` only reaches a server whose accept loop runs, so wait until it does.
  while (!impl_->server->is_running() && !finished->load())
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return bound;
}

void ReferenceService::stop() {
  std::lock_guard lock(impl_->serverMutex);
  if (impl_->server)
    impl_->server->stop();
  if (impl_->thread.joinable())
    impl_->thread.join();
}

std::string ReferenceService::baseUrl() const {
  const int port = impl_->port.load();
  return port > 0 ? fmt::format("http://127.0.0.1:{}", port) : std::string();
}

}  // namespace zonaris::service_tool

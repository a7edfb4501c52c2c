// BusWebSource: the bus as `korvan web` shows it, the BusSource of the web server
// (tools/web) on top of this library.
//
// - The graph (nodes, topics, services, with the schemas the bus describes them with) is read
//   from discovery by a thread of its own every `refresh`, so that the server's reads are
//   in-memory copies; a change wakes the server through the change callback.
// - Each topic is read at most once, as raw bytes (RawSubscriber): that one subscription feeds
//   the statistics (rate, bandwidth, transmit delay from the publish stamp read off the wire),
//   the applications' lifecycle (their "<app>/<signal>" topics) and every client streaming the
//   topic, which gets the bytes as they came, never re-serialised. Data topics are read
//   best-effort with a bounded queue, so a busy topic drops here rather than slowing its
//   publishers. A data topic nobody streams is only sampled (`sample_interval`, at most
//   `sample_depth` messages a time): publishers on this host then spend nothing on waking
//   this reader, and the rate counts what the publishers' numbering says they sent.
// - Only topics whose data is wanted are read: all of them while statistics are asked for
//   (GetStats/GetApplications, i.e. while a page is open, and `stats_linger` after), otherwise
//   only those a client streams.
// - Service calls and parameters go through cached clients (DynamicClient, ParameterClient);
//   they block a worker thread of the server, never the io thread.
//
// Threads: see BusSource. Callbacks given to Subscribe run on the topic's delivery thread, one
// at a time per topic. Ownership: the node and the catalog are borrowed and must outlive the
// source; the source must outlive the server that uses it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "infra/mutex.h"
#include "infra/thread_annotations.h"
#include "korvan/tools/bus_snapshot.h"
#include "korvan/tools/type_catalog.h"
#include "korvan/web/bus_source.h"

namespace tarvik {
namespace quessa {
class Node;
}  // namespace quessa

namespace korvan {
class ParameterClient;

namespace tools {

class DynamicClient;
class RawSubscriber;

class BusWebSource : public web::BusSource {
 public:
  struct Options {
    std::chrono::milliseconds refresh{500};          // how often discovery is read
    std::chrono::milliseconds stats_linger{5000};    // topics stay read this long after a GetStats
    std::chrono::seconds call_timeout{5};            // service and parameter calls
    uint32_t queue_depth = 100;                      // per topic, messages not yet delivered
    std::chrono::milliseconds sample_interval{100};  // topics read for statistics only
    uint32_t sample_depth = 10;                      // newest messages taken per look
  };

  BusWebSource(quessa::Node& node, TypeCatalog& catalog, Options options);
  BusWebSource(quessa::Node& node, TypeCatalog& catalog);
  // Stops reading discovery and every topic; no callback runs once it returns.
  ~BusWebSource() override;
  BusWebSource(const BusWebSource&) = delete;
  BusWebSource& operator=(const BusWebSource&) = delete;

  web::Graph GetGraph() override;
  std::vector<web::ApplicationInfo> GetApplications() override;
  std::vector<web::TopicStats> GetStats() override;
  uint64_t Subscribe(const std::string& topic, MessageCallback callback) override;
  void Unsubscribe(uint64_t handle) override;
  web::Result<std::string> DecodeToJson(const std::string& type, std::string_view payload) override;
  web::Result<std::string> CallService(const std::string& service, web::Encoding encoding,
                                       std::string_view request) override;
  web::Result<std::vector<web::Parameter>> ListParameters(const std::string& node) override;
  web::Result<web::Parameter> GetParameter(const std::string& node,
                                           const std::string& name) override;
  web::Result<web::Parameter> SetParameter(const std::string& node, const std::string& name,
                                           const std::string& value_json) override;
  void SetChangeCallback(std::function<void()> on_change) override;

  // The topics read from the bus right now, by name (diagnostics, tests).
  std::vector<std::string> ReadTopics() const;
  // Reads discovery now instead of at the next tick; any thread.
  void RefreshNow();

 private:
  // One topic's subscription, statistics and subscribers; defined in the source file.
  struct Tap;
  // One application's lifecycle as its signals told it.
  struct AppState {
    std::string phase;
    uint64_t frame = 0;
    bool failed = false;
    std::string failure;
    uint64_t failed_frame = 0;  // of a failed_proc; a later post_proc clears it
    bool finalized = false;     // post_ or failed_finalize heard: the run is over
    bool on_bus = true;
  };
  // A cached client of one service, with the request type it sends.
  struct ServiceEnd {
    std::shared_ptr<DynamicClient> client;
    const DynamicType* request = nullptr;
  };

  void Run();
  void Tick();
  bool StatsWanted() const;
  void OnSignal(const std::string& app, int signal, const std::string& bytes);
  std::shared_ptr<ParameterClient> ParamsOf(const std::string& node, std::string* problem);
  ServiceEnd ClientOf(const std::string& service, std::string* problem);
  // Readers taken off their taps, destroyed outside mu_ as each waits for its callback.
  using Closing = std::vector<std::pair<std::shared_ptr<Tap>, std::unique_ptr<RawSubscriber>>>;
  // Opens the tap's subscription, sampling or whole, replacing one of the other kind.
  void Open(const std::shared_ptr<Tap>& tap, bool sampling, Closing* closing) KORVAN_REQUIRES(mu_);
  web::Result<web::Parameter> FetchParameter(ParameterClient& client, const std::string& node,
                                             const std::string& name);

  quessa::Node& node_;
  TypeCatalog& catalog_;
  const Options options_;

  mutable inf::Mutex mu_;
  BusSnapshot snapshot_ KORVAN_GUARDED_BY(mu_);
  web::Graph graph_ KORVAN_GUARDED_BY(mu_);
  std::string signature_ KORVAN_GUARDED_BY(mu_);
  std::map<std::string, std::shared_ptr<Tap>> taps_ KORVAN_GUARDED_BY(mu_);
  std::map<uint64_t, std::shared_ptr<Tap>> handles_ KORVAN_GUARDED_BY(mu_);
  uint64_t next_handle_ KORVAN_GUARDED_BY(mu_) = 1;

  inf::Mutex apps_mu_;
  std::map<std::string, AppState> apps_ KORVAN_GUARDED_BY(apps_mu_);

  inf::Mutex change_mu_;
  std::function<void()> on_change_ KORVAN_GUARDED_BY(change_mu_);

  inf::Mutex clients_mu_;
  std::map<std::string, std::shared_ptr<ParameterClient>> param_clients_
      KORVAN_GUARDED_BY(clients_mu_);
  std::map<std::string, ServiceEnd> service_clients_ KORVAN_GUARDED_BY(clients_mu_);

  // Fingerprints whose description does not build (no stamps read); the watcher's own.
  std::set<uint64_t> unbuildable_;

  // Steady-clock nanoseconds until which every topic is read.
  std::atomic<int64_t> stats_wanted_until_{0};

  inf::Mutex wake_mu_;
  inf::CondVar wake_;
  bool stopping_ KORVAN_GUARDED_BY(wake_mu_) = false;
  bool refresh_now_ KORVAN_GUARDED_BY(wake_mu_) = false;
  std::thread thread_;
};

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik

// Runs one application of the demo manifest until SIGTERM or SIGINT.
//   planner: periodic; publishes a stamped Pose on "demo/pose" every step and serves its
//            parameters (speed, gains), moving at the speed the parameter says.
//   tracker: event-driven by "demo/pose"; reports the latest pose it received.
// Usage: demo_app <planner|tracker> <manifest.json>
#include <signal.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "demo_proto/demo_messages.pb.h"
#include "tarvikdds/application/application.h"
#include "tarvikdds/application/manifest.h"
#include "tarvikdds/messaging/dds_parameter_server.h"

namespace {

using korvan::demo::Gains;
using korvan::demo::Pose;
using tarvik::korvan::Parameter;
using tarvik::quessa::Application;
using tarvik::quessa::Manifest;
using tarvik::quessa::QoS;

class Planner : public Application {
 public:
  Planner() : Application("planner") {}

  std::string Init() override {
    params_ = std::make_unique<tarvik::quessa::ParamServer>(
        node(), [](const std::string& name, const Parameter& parameter) {
          std::printf("planner  | parameter %s is now %s\n", name.c_str(),
                      parameter.DebugString().c_str());
        });
    params_->server()->SetParameter(Parameter("speed", 1.0));
    auto gains = std::make_shared<Gains>();
    gains->set_kp(1.2);
    params_->SetParameter("gains", gains);
    poses_ = node()->CreatePublisher<Pose>("demo/pose", QoS());
    return "";
  }

  std::string Proc(uint64_t, uint64_t delta_ms) override {
    Parameter speed;
    params_->server()->GetParameter("speed", &speed);
    heading_ += 0.1;
    x_ += speed.value<double>() * std::cos(heading_) * delta_ms / 1000.0;
    y_ += speed.value<double>() * std::sin(heading_) * delta_ms / 1000.0;
    auto pose = std::make_shared<Pose>();
    pose->set_x(x_);
    pose->set_y(y_);
    pose->set_heading(heading_);
    if (!poses_->Publish(pose))
      return "pose not sent";
    if (pose->counter() % 10 == 0) {
      std::printf("planner  | step %llu: pose #%llu (%.2f, %.2f) at speed %.1f\n",
                  static_cast<unsigned long long>(frame()),
                  static_cast<unsigned long long>(pose->counter()), x_, y_, speed.value<double>());
    }
    return "";
  }

  std::string Finalize() override {
    poses_.reset();
    params_.reset();
    return "";
  }

 private:
  std::unique_ptr<tarvik::quessa::ParamServer> params_;
  std::shared_ptr<tarvik::quessa::Publisher<Pose>> poses_;
  double x_ = 0;
  double y_ = 0;
  double heading_ = 0;
};

class Tracker : public Application {
 public:
  Tracker() : Application("tracker") {}

  std::string Init() override {
    poses_ = node()->CreateSubscriber<Pose>("demo/pose", QoS(),
                                            [this](const std::shared_ptr<Pose>& pose) {
                                              std::lock_guard<std::mutex> lock(mutex_);
                                              latest_ = pose;
                                            });
    return "";
  }

  std::string Proc(uint64_t, uint64_t) override {
    std::shared_ptr<Pose> pose;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pose = latest_;
    }
    if (!pose)
      return "";  // the trigger can overtake the pose reader; the next step sees it
    if (frame() % 10 == 0) {
      std::printf(
          "tracker  | step %llu: saw pose #%llu (%.2f, %.2f) from publisher %.8s, "
          "crc %08x checked\n",
          static_cast<unsigned long long>(frame()),
          static_cast<unsigned long long>(pose->counter()), pose->x(), pose->y(),
          pose->publisher_id().c_str(), pose->crc());
    }
    return "";
  }

  std::string Finalize() override {
    poses_.reset();
    return "";
  }

 private:
  std::shared_ptr<tarvik::quessa::Subscriber<Pose>> poses_;
  std::mutex mutex_;
  std::shared_ptr<Pose> latest_;
};

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <planner|tracker> <manifest.json>\n", argv[0]);
    return 2;
  }
  // Signals are taken by sigwait below, not by a handler in a random thread.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  const std::string name = argv[1];
  try {
    Manifest::GetInstance()->Load(argv[2]);
  } catch (const std::runtime_error& e) {
    std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
    return 1;
  }
  Manifest::ItgAppConfig* config = Manifest::GetInstance()->GetItgAppConfig(name);
  if (config == nullptr) {
    std::fprintf(stderr, "%s: not in the manifest\n", name.c_str());
    return 1;
  }
  std::shared_ptr<Application> app;
  if (name == "planner") {
    app = std::make_shared<Planner>();
  } else if (name == "tracker") {
    app = std::make_shared<Tracker>();
  } else {
    std::fprintf(stderr, "%s: no such application in this demo\n", name.c_str());
    return 1;
  }
  Application::Register(name, app);
  if (config->interval >= 0) {
    app->Start(config->interval);
  } else {
    app->Start(config->events);
  }
  int received = 0;
  sigwait(&stop_signals, &received);
  Application::StopAll(true);
  return 0;
}

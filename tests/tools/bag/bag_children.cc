// Child roles of the bag tests: real publishers for the recorder, and a subscriber for the
// player.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "bag_test_util.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan::test::StampedMessage;
using korvan_bag_test::kWait;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;

template <typename T>
int Publish(const std::vector<std::string>& args, void (*fill)(T*, uint64_t)) {
  const std::string& topic = args.at(0);
  const long count = std::stol(args.at(2));
  const double rate = std::stod(args.at(3));
  const std::string& finish = args.at(4);
  auto node = Node::CreateNode("bag_publisher", "");
  auto publisher = node->CreatePublisher<T>(topic, QoS());
  CHILD_CHECK(korvan_test::WaitFor([&] { return publisher->MatchedSubscribers() >= 1; }, kWait));
  printf("matched\n");
  fflush(stdout);
  // The test says when the subscriber has seen this publisher too (DDS matches each side on
  // its own; a volatile reader skips what was sent before its side matched).
  if (args.size() > 5)
    CHILD_CHECK(korvan_test::WaitForFile(args.at(5), static_cast<int>(kWait.count())));
  const auto period = std::chrono::nanoseconds(static_cast<long>(1e9 / rate));
  auto next = std::chrono::steady_clock::now();
  long sent = 0;
  while (count == 0 ? ::access(finish.c_str(), F_OK) != 0 : sent < count) {
    auto message = std::make_shared<T>();
    fill(message.get(), static_cast<uint64_t>(sent));
    CHILD_CHECK(publisher->Publish(message));
    ++sent;
    next += period;
    std::this_thread::sleep_until(next);
  }
  printf("done %ld\n", sent);
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(finish, static_cast<int>(kWait.count())));
  return CHILD_RESULT();
}

void FillStamped(StampedMessage* m, uint64_t i) {
  m->set_sequence(i);
  m->set_text("stamped " + std::to_string(i));
  m->set_payload(std::string(i % 7 * 30, static_cast<char>(i)));
  (*m->mutable_labels())["i"] = static_cast<int32_t>(i);
  (*m->mutable_labels())["half"] = static_cast<int32_t>(i / 2);
}

void FillPlain(PlainMessage* m, uint64_t i) {
  m->set_sequence(i);
  m->set_text("plain " + std::to_string(i));
  m->set_payload(std::string(i % 5 * 100, static_cast<char>('a' + i % 26)));
}

}  // namespace

// args: topic, stamped|plain, count (0: until the finish file), rate in Hz, finish file, and
// optionally a go file. Publishes once the recorder has matched (and the go file is there),
// then stays until the finish file appears.
KORVAN_CHILD_ROLE(publisher) {
  if (args.at(1) == "stamped")
    return Publish<StampedMessage>(args, &FillStamped);
  return Publish<PlainMessage>(args, &FillPlain);
}

// args: topic, count. Receives PlainMessages written by the outside writer (sequence n, text
// "outside n") and checks they come complete and in order.
KORVAN_CHILD_ROLE(outside_subscriber) {
  const std::string& topic = args.at(0);
  const size_t count = std::stoul(args.at(1));
  auto node = Node::CreateNode("bag_subscriber", "");
  std::mutex mutex;
  std::vector<std::shared_ptr<PlainMessage>> received;
  QoS keep_all;
  keep_all.history_type = 1;
  auto subscriber = node->CreateSubscriber<PlainMessage>(
      topic, keep_all, [&](const std::shared_ptr<PlainMessage>& m) {
        std::lock_guard<std::mutex> lock(mutex);
        received.push_back(m);
      });
  printf("ready\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitFor(
      [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return received.size() >= count;
      },
      kWait));
  std::lock_guard<std::mutex> lock(mutex);
  for (size_t n = 0; n < received.size(); ++n) {
    CHILD_CHECK(received[n]->sequence() == n);
    CHILD_CHECK(received[n]->text() == "outside " + std::to_string(n));
    CHILD_CHECK(received[n]->payload() == std::string(n % 5 * 100, static_cast<char>(n)));
  }
  printf("received %zu\n", received.size());
  fflush(stdout);
  return CHILD_RESULT();
}

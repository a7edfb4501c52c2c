// korvan bag record | play | info | recover: recordings of the bus in MCAP files.
#include <malloc.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "cli.h"
#include "korvan/mcap/info.h"
#include "korvan/mcap/io.h"
#include "korvan/mcap/playback.h"
#include "korvan/mcap/recover.h"
#include "korvan/tools/bag_player.h"
#include "korvan/tools/bag_recorder.h"

namespace korvan_cli {
namespace {

namespace mcap = tarvik::korvan::mcap;
using tarvik::korvan::tools::BagPlayer;
using tarvik::korvan::tools::BagRecorder;
using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::RecorderOptions;
using tarvik::korvan::tools::RecorderStats;

// Standard error carries the status line and remarks from several threads: one line at a
// time, and a status line on a terminal is cleared before anything else is written.
class StatusOutput {
 public:
  StatusOutput() : terminal_(isatty(STDERR_FILENO) == 1) {}
  bool terminal() const { return terminal_; }

  // A status line: refreshed in place on a terminal, a line of its own otherwise.
  void Status(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (terminal_) {
      std::fprintf(stderr, "\r\033[K%s", text.c_str());
      status_shown_ = true;
    } else {
      std::fprintf(stderr, "%s\n", text.c_str());
    }
    std::fflush(stderr);
  }
  // A remark, "korvan: " first.
  void Line(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    ClearStatus();
    std::fprintf(stderr, "korvan: %s\n", text.c_str());
    std::fflush(stderr);
  }
  // Leaves the status line where it is and moves to a new line.
  void EndStatus() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (status_shown_)
      std::fprintf(stderr, "\n");
    status_shown_ = false;
  }

 private:
  void ClearStatus() {
    if (status_shown_)
      std::fprintf(stderr, "\r\033[K");
    status_shown_ = false;
  }
  const bool terminal_;
  std::mutex mutex_;
  bool status_shown_ = false;
};

std::string Bytes(double bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 4) {
    bytes /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

std::string Milliseconds(double ns) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.3f ms", ns / 1e6);
  return text;
}

void PrintProblems(const std::string& file, const std::vector<mcap::Problem>& problems,
                   StatusOutput* out = nullptr) {
  for (const mcap::Problem& p : problems) {
    if (out != nullptr)
      out->Line(file + ": " + p.ToString());
    else
      PrintError(file + ": " + p.ToString());
  }
}

// Recording and playing move messages of up to megabytes from thread to thread. With glibc's
// defaults each such buffer is a fresh mapping whose pages fault in one by one; kept in the
// heap instead, a 1 MiB message costs a fraction (the bench's throughput more than doubles).
void KeepLargeBuffersInTheHeap() {
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
}

// ---- record ----

struct RecordOptions {
  bool all = false;
  std::vector<std::string> topics;
  std::string output;
  std::string compression = "zstd";
  double split_size_mb = 0;
  double split_duration_s = 0;
  double duration_s = 0;  // 0: until interrupted
};

std::string DefaultOutputName() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char name[64];
  std::strftime(name, sizeof(name), "korvan_%Y%m%d_%H%M%S.mcap", &local);
  return name;
}

std::string RecordStatus(const RecorderStats& now, const RecorderStats& before, double seconds) {
  const double rate =
      seconds > 0 ? static_cast<double>(now.messages - before.messages) / seconds : 0;
  const double bytes_rate =
      seconds > 0 ? static_cast<double>(now.message_bytes - before.message_bytes) / seconds : 0;
  char text[256];
  std::snprintf(text, sizeof(text),
                "recording %zu topic%s, %d publisher%s: %" PRIu64
                " msgs, %s (%s in files), %.0f msg/s, %s/s, lost %" PRIu64 ", dropped %" PRIu64,
                now.topics, now.topics == 1 ? "" : "s", now.publishers,
                now.publishers == 1 ? "" : "s", now.messages,
                Bytes(static_cast<double>(now.message_bytes)).c_str(),
                Bytes(static_cast<double>(now.file_bytes)).c_str(), rate, Bytes(bytes_rate).c_str(),
                now.lost, now.dropped);
  return text;
}

int Record(const RecordOptions& options) {
  if (options.all == !options.topics.empty()) {
    PrintError(options.all ? "give either -a or topics, not both"
                           : "give the topics to record, or -a for all");
    return kExitUsage;
  }
  RecorderOptions recorder_options;
  recorder_options.all_topics = options.all;
  recorder_options.topics = options.topics;
  recorder_options.output = options.output.empty() ? DefaultOutputName() : options.output;
  recorder_options.writer.compression = *mcap::ParseCompression(options.compression);
  // zstd's fastest regular level: on sensor-like data about five times as fast as its default
  // and as small, which is what lets 1 MiB messages be recorded at the bus's full rate.
  if (recorder_options.writer.compression == mcap::Compression::kZstd)
    recorder_options.writer.compression_level = 1;
  recorder_options.split.max_bytes = static_cast<uint64_t>(options.split_size_mb * 1e6);
  recorder_options.split.max_duration_ns = static_cast<uint64_t>(options.split_duration_s * 1e9);

  KeepLargeBuffersInTheHeap();
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  StatusOutput out;
  BagRecorder recorder(session.node(), session.catalog(), recorder_options);
  recorder.set_on_note([&out](const std::string& note) { out.Line(note); });
  mcap::Status status = recorder.Start();
  if (!status.ok()) {
    PrintError("cannot record into " + recorder_options.output + ": " + status.message());
    return kExitFailure;
  }
  const bool split =
      recorder_options.split.max_bytes != 0 || recorder_options.split.max_duration_ns != 0;
  out.Line("recording to " +
           (split ? mcap::SplitWriter::FileName(recorder_options.output, 0) + ", ..."
                  : recorder_options.output) +
           " (" + options.compression + "); Ctrl-C stops");

  const auto started = std::chrono::steady_clock::now();
  const auto end = options.duration_s > 0 ? started + std::chrono::milliseconds(static_cast<long>(
                                                          std::llround(options.duration_s * 1000)))
                                          : std::chrono::steady_clock::time_point::max();
  auto next_look = started;
  auto last_status_time = started;
  RecorderStats last_status;
  bool waiting_reported = false;
  while (!Interrupted() && std::chrono::steady_clock::now() < end) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= next_look) {
      // Discovery is polled: topics that appear while recording are picked up.
      BusSnapshot snapshot;
      if (BusSnapshot::Take(&snapshot)) {
        for (const std::string& topic : recorder.Subscribe(snapshot))
          out.Line("recording " + topic);
        if (!options.all && !waiting_reported && now - started >= std::chrono::seconds(2)) {
          for (const std::string& topic : options.topics) {
            const auto* seen = snapshot.FindTopic(topic);
            if (seen == nullptr || seen->publishers.empty())
              out.Line("'" + topic + "' has no publisher yet");
          }
          waiting_reported = true;
        }
      }
      next_look = now + std::chrono::seconds(1);
    }
    if (now - last_status_time >= std::chrono::seconds(1)) {
      const RecorderStats stats = recorder.stats();
      out.Status(RecordStatus(stats, last_status,
                              std::chrono::duration<double>(now - last_status_time).count()));
      last_status = stats;
      last_status_time = now;
    }
    if (!recorder.status().ok())
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  status = recorder.Stop();
  out.EndStatus();
  const RecorderStats stats = recorder.stats();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::string files;
  for (const std::string& f : recorder.files())
    files += (files.empty() ? "" : ", ") + f;
  if (!status.ok()) {
    PrintError("recording failed: " + status.message() + " (" + std::to_string(stats.messages) +
               " messages written to " + files + ")");
    return kExitFailure;
  }
  char text[256];
  std::snprintf(text, sizeof(text),
                "%" PRIu64 " messages, %s in %.1f s (%zu topics, %zu channels), lost %" PRIu64
                ", dropped %" PRIu64,
                stats.messages, Bytes(static_cast<double>(stats.file_bytes)).c_str(), seconds,
                stats.topics, stats.channels, stats.lost, stats.dropped);
  out.Line("wrote " + (files.empty() ? std::string("nothing (no message arrived)") : files) + ": " +
           text);
  return kExitOk;
}

// ---- play ----

struct PlayOptions {
  std::string file;
  double rate = 1.0;
  bool loop = false;
  std::vector<std::string> topics;
  double start_s = 0;
  std::vector<std::string> remaps;
  double wait_s = 3.0;  // for subscribers to match
};

// Non-canonical input without echo while it lives, when standard input is a terminal: a key
// press arrives at once. The previous mode comes back in the destructor, and at exit should
// the process end another way.
class RawTerminal {
 public:
  RawTerminal() {
    if (isatty(STDIN_FILENO) != 1 || tcgetattr(STDIN_FILENO, &saved_) != 0)
      return;
    termios raw = saved_;
    raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) != 0)
      return;
    active_ = true;
    g_saved = saved_;
    g_restore_at_exit = true;
    static const bool registered = [] {
      std::atexit([] {
        if (g_restore_at_exit)
          tcsetattr(STDIN_FILENO, TCSANOW, &g_saved);
      });
      return true;
    }();
    (void)registered;
  }
  ~RawTerminal() {
    if (active_) {
      tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
      g_restore_at_exit = false;
    }
  }
  bool active() const { return active_; }

 private:
  static termios g_saved;
  static bool g_restore_at_exit;
  termios saved_{};
  bool active_ = false;
};
termios RawTerminal::g_saved{};
bool RawTerminal::g_restore_at_exit = false;

int Play(const PlayOptions& options) {
  mcap::PlaybackOptions playback;
  playback.rate = options.rate;
  playback.loop = options.loop;
  playback.start_offset_s = options.start_s;
  playback.topics = options.topics;
  for (const std::string& text : options.remaps) {
    std::optional<mcap::TopicRemap> remap = mcap::ParseTopicRemap(text);
    if (!remap) {
      PrintError("--remap takes FROM:=TO, not '" + text + "'");
      return kExitUsage;
    }
    playback.remaps.push_back(*remap);
  }
  KeepLargeBuffersInTheHeap();
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  BagPlayer player(session.node(), session.catalog());
  mcap::Status status = player.Open(options.file, playback);
  PrintProblems(options.file, player.problems());
  if (!status.ok()) {
    PrintError("cannot play " + options.file + ": " + status.message());
    return kExitFailure;
  }
  if (!player.indexed())
    PrintError(options.file +
               " has no usable summary: playing what a streaming read finds "
               "(`korvan bag recover` writes an indexed copy)");
  StatusOutput out;
  for (const std::string& note :
       player.Prepare(std::chrono::milliseconds(static_cast<long>(options.wait_s * 1000))))
    out.Line(note);
  if (Interrupted())
    return kExitOk;

  RawTerminal terminal;
  char text[160];
  std::snprintf(text, sizeof(text), "playing %s: %.1f s at rate %g%s%s", options.file.c_str(),
                player.duration_s(), options.rate, options.loop ? ", looping" : "",
                terminal.active() ? "; space pauses, Ctrl-C stops" : "");
  out.Line(text);
  // Keys, Ctrl-C and the status line, beside the playing thread.
  std::atomic<bool> done{false};
  std::thread control([&] {
    auto next_status = std::chrono::steady_clock::now();
    while (!done.load()) {
      if (Interrupted()) {
        player.Stop();
        break;
      }
      if (terminal.active()) {
        pollfd fd{STDIN_FILENO, POLLIN, 0};
        if (poll(&fd, 1, 50) > 0 && (fd.revents & POLLIN) != 0) {
          char key = 0;
          while (read(STDIN_FILENO, &key, 1) == 1) {
            if (key != ' ')
              continue;
            if (player.paused()) {
              player.Resume();
            } else {
              player.Pause();
            }
            next_status = std::chrono::steady_clock::now();
          }
        }
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      if (out.terminal() && std::chrono::steady_clock::now() >= next_status) {
        char line[160];
        std::snprintf(line, sizeof(line), "[%s] %.1f / %.1f s, %" PRIu64 " messages",
                      player.paused() ? "paused" : "playing", player.position_s(),
                      player.duration_s(), player.published());
        out.Status(line);
        next_status = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
      }
    }
  });
  const auto started = std::chrono::steady_clock::now();
  player.Play();
  done = true;
  control.join();
  out.EndStatus();
  // Reliable delivery of the last messages before the publishers go.
  SleepUnlessInterrupted(std::chrono::milliseconds(200));

  for (const std::string& note : player.TakeNotes())
    out.Line(note);
  const tarvik::korvan::tools::PlayerStats stats = player.stats();
  std::snprintf(
      text, sizeof(text), "played %" PRIu64 " messages in %.1f s; timing error median %s, p99 %s",
      stats.published,
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(),
      Milliseconds(stats.median_error_ns).c_str(), Milliseconds(stats.p99_error_ns).c_str());
  out.Line(text);
  if (stats.failed > 0)
    out.Line(std::to_string(stats.failed) + " messages did not decode or could not be sent");
  if (stats.skipped > 0)
    out.Line(std::to_string(stats.skipped) + " messages on channels that cannot be played");
  // Problems met while playing (a damaged chunk the summary pointed to).
  const std::vector<mcap::Problem> problems = player.problems();
  PrintProblems(options.file, problems, &out);
  return problems.empty() && stats.failed == 0 ? kExitOk : kExitFailure;
}

// ---- info ----

std::string InfoJson(const std::string& file, const mcap::RecordingInfo& info) {
  std::string out = "{\"file\":" + JsonQuote(file) + ",\"size\":" + std::to_string(info.file_size);
  char number[64];
  std::snprintf(number, sizeof(number), "%.9f", info.duration_s);
  out += ",\"duration_s\":" + std::string(number);
  out += ",\"start_ns\":" + std::to_string(info.start) + ",\"end_ns\":" + std::to_string(info.end);
  out += ",\"messages\":" + std::to_string(info.message_count) +
         ",\"chunks\":" + std::to_string(info.chunk_count) + ",\"compression\":[";
  for (size_t i = 0; i < info.compressions.size(); ++i)
    out += (i ? "," : "") + JsonQuote(info.compressions[i]);
  out += "],\"indexed\":" + std::string(info.indexed ? "true" : "false") +
         ",\"complete\":" + (info.complete ? "true" : "false") +
         ",\"library\":" + JsonQuote(info.library) + ",\"topics\":[";
  for (size_t i = 0; i < info.channels.size(); ++i) {
    const mcap::ChannelInfo& c = info.channels[i];
    std::snprintf(number, sizeof(number), "%.3f", c.rate_hz);
    out += (i ? "," : "") + std::string("{\"topic\":") + JsonQuote(c.topic) +
           ",\"type\":" + JsonQuote(c.schema_name) +
           ",\"encoding\":" + JsonQuote(c.message_encoding) +
           ",\"channel\":" + std::to_string(c.id) +
           ",\"messages\":" + std::to_string(c.message_count) + ",\"rate_hz\":" + number + "}";
  }
  out += "],\"problems\":[";
  for (size_t i = 0; i < info.problems.size(); ++i) {
    out += (i ? "," : "") + std::string("{\"offset\":") + std::to_string(info.problems[i].offset) +
           ",\"message\":" + JsonQuote(info.problems[i].message) + "}";
  }
  return out + "]}";
}

int Info(const std::string& file, bool json, bool summary_only) {
  mcap::Status status;
  std::unique_ptr<mcap::FileSource> source = mcap::FileSource::Open(file, &status);
  if (!source) {
    PrintError(status.message());
    return kExitFailure;
  }
  mcap::RecordingInfo info = mcap::ReadInfo(*source);
  if (info.indexed && !summary_only) {
    // The summary vouches for nothing inside the chunks: every chunk is read and checked
    // (CRC, compression), as a player would meet it.
    mcap::StreamReader reader(*source);
    mcap::Message message;
    uint64_t readable = 0;
    while (reader.Next(&message))
      ++readable;
    info.problems.insert(info.problems.end(), reader.problems().begin(), reader.problems().end());
    if (readable != info.message_count && reader.problems().empty()) {
      info.problems.push_back(
          mcap::Problem{0, "the summary counts " + std::to_string(info.message_count) +
                               " messages, the chunks hold " + std::to_string(readable)});
    }
  }
  if (json) {
    std::printf("%s\n", InfoJson(file, info).c_str());
  } else {
    std::printf("file:        %s\n%s", file.c_str(), mcap::FormatInfo(info).c_str());
  }
  // The problems are in the output already ("problem:" lines, or the JSON's list).
  if (!info.problems.empty() || !info.complete) {
    if (!info.complete && info.message_count > 0)
      PrintError(file + " is incomplete; `korvan bag recover` writes an indexed copy");
    return kExitFailure;
  }
  return kExitOk;
}

// ---- recover ----

int Recover(const std::string& input, const std::string& output, const std::string& compression) {
  mcap::WriterOptions writer;
  writer.compression = *mcap::ParseCompression(compression);
  const mcap::RecoverResult result = mcap::Recover(input, output, writer);
  PrintProblems(input, result.problems);
  if (!result.status.ok()) {
    PrintError("cannot recover " + input + ": " + result.status.message());
    return kExitFailure;
  }
  struct stat input_stat {};
  const uint64_t input_size =
      ::stat(input.c_str(), &input_stat) == 0 ? static_cast<uint64_t>(input_stat.st_size) : 0;
  std::fprintf(stderr,
               "korvan: wrote %s: %" PRIu64 " messages from %" PRIu64 " chunks (%" PRIu64
               " of %" PRIu64 " bytes of the input readable)%s\n",
               output.c_str(), result.message_count, result.chunks_read, result.readable_bytes,
               input_size, result.input_complete ? "; the input was complete already" : "");
  if (result.chunks_skipped > 0) {
    PrintError(std::to_string(result.chunks_skipped) +
               " damaged chunks were skipped: their messages are lost");
    return kExitFailure;
  }
  // Nothing readable at all: not a recording.
  if (result.message_count == 0 && !result.problems.empty())
    return kExitFailure;
  return kExitOk;
}

}  // namespace

void AddBagCommands(CLI::App& app, int* exit_code) {
  CLI::App* bag = app.add_subcommand("bag", "Recordings (MCAP): record, play, info, recover");
  bag->require_subcommand(1);
  const std::vector<std::string> compressions = {"zstd", "lz4", "none"};

  static RecordOptions record_options;
  CLI::App* record = bag->add_subcommand(
      "record", "Records topics into an MCAP file until Ctrl-C: every message as received");
  record->add_flag("-a,--all", record_options.all,
                   "Every topic with a publisher, including those that appear later");
  record->add_option("TOPIC", record_options.topics, "Topics to record");
  record->add_option("-o,--output", record_options.output,
                     "File to write (default korvan_<date>_<time>.mcap); with splitting the "
                     "base of <base>_0.mcap, <base>_1.mcap, ...");
  record->add_option("--compression", record_options.compression, "Chunk compression")
      ->capture_default_str()
      ->check(CLI::IsMember(compressions));
  record
      ->add_option("--split-size", record_options.split_size_mb,
                   "Start a new file when one reaches this many MB")
      ->check(CLI::PositiveNumber);
  record
      ->add_option("--split-duration", record_options.split_duration_s,
                   "Start a new file when one spans this many seconds")
      ->check(CLI::PositiveNumber);
  record
      ->add_option("-d,--duration", record_options.duration_s,
                   "Stop after this many seconds (default: at Ctrl-C)")
      ->check(CLI::PositiveNumber);
  record->callback([=] { *exit_code = Record(record_options); });

  static PlayOptions play_options;
  CLI::App* play = bag->add_subcommand(
      "play", "Publishes a recording with its recorded timing; space pauses and resumes");
  play->add_option("FILE", play_options.file, "The recording")->required();
  play->add_option("-r,--rate", play_options.rate, "Speed factor (2 plays twice as fast)")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  play->add_flag("-l,--loop", play_options.loop, "Start again after the last message");
  play->add_option("--topics", play_options.topics,
                   "Play only these recorded topics (comma-separated, or the option repeated)")
      ->delimiter(',')
      ->allow_extra_args(false);
  play->add_option("-s,--start", play_options.start_s,
                   "Skip this many seconds from the recording's start")
      ->check(CLI::NonNegativeNumber);
  play->add_option("--remap", play_options.remaps,
                   "Publish topic FROM on TO (FROM:=TO; the option repeated for more)")
      ->allow_extra_args(false);
  play->add_option("--wait", play_options.wait_s,
                   "Seconds to wait for the topics' subscribers to match before the first "
                   "message")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  play->callback([=] { *exit_code = Play(play_options); });

  static std::string info_file;
  static bool info_json = false;
  static bool info_summary_only = false;
  CLI::App* info = bag->add_subcommand(
      "info",
      "A recording's duration, start and end, size, compression, and per topic its "
      "type, message count and rate");
  info->add_option("FILE", info_file, "The recording")->required();
  info->add_flag("--json", info_json, "Machine-readable output (JSON)");
  info->add_flag("--summary-only", info_summary_only,
                 "Read only the summary: fast, but damage inside chunks goes unseen");
  info->callback([=] { *exit_code = Info(info_file, info_json, info_summary_only); });

  static std::string recover_in;
  static std::string recover_out;
  static std::string recover_compression = "zstd";
  CLI::App* recover = bag->add_subcommand(
      "recover",
      "Writes a fully indexed copy of a recording that was cut short (a recorder killed): "
      "every complete chunk. Exit 1 when damaged chunks were skipped or nothing is readable");
  recover->add_option("IN", recover_in, "The damaged or incomplete recording")->required();
  recover->add_option("OUT", recover_out, "The file to write")->required();
  recover->add_option("--compression", recover_compression, "Chunk compression of OUT")
      ->capture_default_str()
      ->check(CLI::IsMember(compressions));
  recover->callback([=] { *exit_code = Recover(recover_in, recover_out, recover_compression); });
}

}  // namespace korvan_cli

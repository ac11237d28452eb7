#include "kep-fleet/log.hpp"

#include <spdlog/formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "server/text.hpp"

namespace kepfleet {

namespace {

std::string timeOf(spdlog::log_clock::time_point time) {
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  const std::time_t seconds = milliseconds / 1000;
  std::tm fields{};
  gmtime_r(&seconds, &fields);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", fields.tm_year + 1900, fields.tm_mon + 1,
                     fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec, milliseconds % 1000);
}

class Line : public spdlog::formatter {
 public:
  explicit Line(bool isJson) : isJson_(isJson) {}

  void format(const spdlog::details::log_msg &message, spdlog::memory_buf_t &out) override {
    const auto level = spdlog::level::to_string_view(message.level);
    const std::string_view text(message.payload.data(), message.payload.size());
    std::string line;
    if (isJson_) {
      const nlohmann::ordered_json object = {{"time", timeOf(message.time)},
                                             {"level", std::string(level.data(), level.size())},
                                             {"message", kepserver::printable(text)}};
      line = object.dump() + "\n";
    } else {
      line = timeOf(message.time) + " " + std::string(level.data(), level.size()) + " " + kepserver::printable(text) +
             "\n";
    }
    out.append(line.data(), line.data() + line.size());
  }

  std::unique_ptr<formatter> clone() const override { return std::make_unique<Line>(isJson_); }

 private:
  bool isJson_;
};

}  // namespace

void setUpLog(const LogConfig &config) {
  auto logger = std::make_shared<spdlog::logger>("kep-fleet", std::make_shared<spdlog::sinks::stderr_sink_mt>());
  logger->set_formatter(std::make_unique<Line>(config.json));
  logger->set_level(spdlog::level::from_str(config.level));
  spdlog::set_default_logger(std::move(logger));
}

}  // namespace kepfleet

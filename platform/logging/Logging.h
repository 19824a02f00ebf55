#pragma once
// Logging: registered log messages. Every message the system can log is registered once with
// its id, its text (one "%s" for the argument), what it means and what the operator should do,
// so that the full list can be documented and a message never changes meaning silently.
//
//   Logging::registerMessage({"PORT_DOWN", "Port %s is down", "...", Logging::kNoActionRequired});
//   Logging::log("PORT_DOWN", "Ethernet1");
//
// log() goes to the innermost Logging::Capture (tests) and to one Flinq line at level 0 on the
// handle "Logging": "<id>: <formatted text>".

#include <string>
#include <string_view>
#include <vector>

namespace Logging {

inline constexpr char kNoActionRequired[] = "No action is required.";

struct MessageDef {
    std::string id;
    std::string format;  // exactly one "%s"; nothing else is interpreted
    std::string explanation;
    std::string action;  // the recommended action
    bool operator==(const MessageDef&) const = default;
};

// Registers `def`. Registering the same definition again does nothing. Throws
// std::invalid_argument for an empty id, a format without exactly one "%s", or an id already
// registered with a different definition.
void registerMessage(const MessageDef& def);
// The registered message `id`; throws std::invalid_argument when there is none.
const MessageDef& message(std::string_view id);
bool isRegistered(std::string_view id);

// The format with its "%s" replaced by `arg`.
std::string format(const MessageDef& def, std::string_view arg);

// Logs message `id` with `arg`. Throws std::invalid_argument when `id` is not registered.
void log(std::string_view id, std::string_view arg);

struct Record {
    std::string id;
    std::string text;  // formatted
    bool operator==(const Record&) const = default;
};

// While alive, records every message logged. Captures nest; the innermost one records.
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    const std::vector<Record>& records() const { return records_; }
    // The formatted texts of message `id`, in order.
    std::vector<std::string> texts(std::string_view id) const;
    bool has(std::string_view id, std::string_view text) const;
    void clear() { records_.clear(); }

  private:
    friend void log(std::string_view id, std::string_view arg);
    std::vector<Record> records_;
    Capture* outer_;
};

}  // namespace Logging

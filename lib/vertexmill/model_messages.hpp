#pragma once
// The messages of one model's conversion, in the order it logs them on its thread (INFO and above:
// lower levels never reach the console). The one list that the model's other accounts are read
// from: the report's warnings and errors, --strict's count of errors, and the messages a cache
// entry keeps to replay on a hit.

#include "cstdmf/debug.hpp"

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vertexmill
{

class ModelMessages final : public cstdmf::ScopedMessageWatcher
{
public:
  struct Message
  {
    DebugMessagePriority priority = DebugMessagePriority::Info;
    std::string category;
    std::string text;
  };

  void onMessage(DebugMessagePriority priority, std::string_view category, std::string_view text) override;

  // A mark for since(): how many messages there are so far.
  size_t count() const;
  // The messages from `mark` on.
  std::vector<Message> since(size_t mark) const;
  // How many of them are ERROR or worse.
  size_t errorCount() const;
  // The texts of the WARNING messages and of the ERROR and worse ones, in order.
  void split(std::vector<std::string>& warnings, std::vector<std::string>& errors) const;

private:
  mutable std::mutex m_mutex;
  std::vector<Message> m_messages;
};

} // namespace vertexmill

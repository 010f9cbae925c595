#include "vertexmill/model_messages.hpp"

#include <algorithm>

namespace vertexmill
{

void ModelMessages::onMessage(DebugMessagePriority priority, std::string_view category, std::string_view text)
{
  if (priority < DebugMessagePriority::Info)
    return;
  const std::lock_guard lock(m_mutex);
  m_messages.push_back(Message{priority, std::string(category), std::string(text)});
}

size_t ModelMessages::count() const
{
  const std::lock_guard lock(m_mutex);
  return m_messages.size();
}

std::vector<ModelMessages::Message> ModelMessages::since(size_t mark) const
{
  const std::lock_guard lock(m_mutex);
  return {m_messages.begin() + static_cast<std::ptrdiff_t>(std::min(mark, m_messages.size())), m_messages.end()};
}

size_t ModelMessages::errorCount() const
{
  const std::lock_guard lock(m_mutex);
  return static_cast<size_t>(std::count_if(m_messages.begin(), m_messages.end(), [](const Message& message) {
    return message.priority >= DebugMessagePriority::Error;
  }));
}

void ModelMessages::split(std::vector<std::string>& warnings, std::vector<std::string>& errors) const
{
  const std::lock_guard lock(m_mutex);
  for (const Message& message : m_messages)
  {
    if (message.priority == DebugMessagePriority::Warning)
      warnings.push_back(message.text);
    else if (message.priority >= DebugMessagePriority::Error)
      errors.push_back(message.text);
  }
}

} // namespace vertexmill

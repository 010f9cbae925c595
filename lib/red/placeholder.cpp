// Placeholder until the library's sources arrive.
namespace vertexmill_placeholder_red {}

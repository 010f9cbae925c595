#include "resmgr/data_section.hpp"

#include "cstdmf/debug.hpp"

bool DataSection::saveChild(DataSection& child, bool /*isBinary*/)
{
  ZR_MSG(DebugMessagePriority::Error, "ResMgr", "DataSection::saveChild: '%s' cannot save its child '%s'.\n",
         sectionName().c_str(), child.sectionName().c_str());
  return false;
}

DataSectionPtr DataSection::convertChildToZip(DataSection& child, const std::string& /*saveAs*/)
{
  ZR_MSG(DebugMessagePriority::Error, "ResMgr", "DataSection::convertChildToZip: '%s' cannot convert its child '%s'.\n",
         sectionName().c_str(), child.sectionName().c_str());
  return nullptr;
}

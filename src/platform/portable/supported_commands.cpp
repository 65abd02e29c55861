#include "platform/portable/supported_commands.h"

namespace qb::portable {

KeyCollection SupportedCommands(bool canWrite, bool canMove) {
  KeyCollection commands = {WPD_COMMAND_COMMON_RESET_DEVICE,
                             WPD_COMMAND_OBJECT_ENUMERATION_START_FIND,
                             WPD_COMMAND_OBJECT_ENUMERATION_FIND_NEXT,
                             WPD_COMMAND_OBJECT_ENUMERATION_END_FIND,
                             WPD_COMMAND_OBJECT_PROPERTIES_GET_SUPPORTED,
                             WPD_COMMAND_OBJECT_PROPERTIES_GET_ATTRIBUTES,
                             WPD_COMMAND_OBJECT_PROPERTIES_GET,
                             WPD_COMMAND_OBJECT_PROPERTIES_SET,
                             WPD_COMMAND_OBJECT_PROPERTIES_GET_ALL,
                             WPD_COMMAND_OBJECT_RESOURCES_GET_SUPPORTED,
                             WPD_COMMAND_OBJECT_RESOURCES_OPEN,
                             WPD_COMMAND_OBJECT_RESOURCES_READ,
                             WPD_COMMAND_OBJECT_RESOURCES_CLOSE,
                             WPD_COMMAND_OBJECT_MANAGEMENT_CREATE_OBJECT_WITH_PROPERTIES_ONLY,
                             WPD_COMMAND_OBJECT_MANAGEMENT_DELETE_OBJECTS,
                             WPD_COMMAND_CAPABILITIES_GET_SUPPORTED_COMMANDS,
                             WPD_COMMAND_CAPABILITIES_GET_SUPPORTED_FUNCTIONAL_CATEGORIES,
                             WPD_COMMAND_CAPABILITIES_GET_FUNCTIONAL_OBJECTS,
                             WPD_COMMAND_CAPABILITIES_GET_SUPPORTED_CONTENT_TYPES};
  if (canWrite) {
    commands.push_back(WPD_COMMAND_OBJECT_MANAGEMENT_CREATE_OBJECT_WITH_PROPERTIES_AND_DATA);
    commands.push_back(WPD_COMMAND_OBJECT_MANAGEMENT_WRITE_OBJECT_DATA);
    commands.push_back(WPD_COMMAND_OBJECT_MANAGEMENT_COMMIT_OBJECT);
    commands.push_back(WPD_COMMAND_OBJECT_MANAGEMENT_REVERT_OBJECT);
  }
  if (canMove) commands.push_back(WPD_COMMAND_OBJECT_MANAGEMENT_MOVE_OBJECTS);
  return commands;
}

}  // namespace qb::portable

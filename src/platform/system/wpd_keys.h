#pragma once
// The public Windows Portable Devices names the program uses: property keys,
// content types, functional categories, object formats, commands, events and
// the few fixed values that go with them. The GUIDs and property ids are the
// published ones, so that logs and device answers read the same as on
// Windows. WpdKeyTable() lists every name here for the log's key names.
#include <cstdint>
#include <span>
#include <string>

#include "platform/system/wintypes.h"

namespace qb::sys {

constexpr GUID MakeGuid(uint32_t d1, uint16_t d2, uint16_t d3, uint8_t b0, uint8_t b1, uint8_t b2,
                        uint8_t b3, uint8_t b4, uint8_t b5, uint8_t b6, uint8_t b7) {
  return GUID{d1, d2, d3, {b0, b1, b2, b3, b4, b5, b6, b7}};
}
constexpr PROPERTYKEY MakeKey(const GUID& g, uint32_t pid) { return PROPERTYKEY{g, pid}; }

// Property-set GUIDs (the fmtid of the keys below).
inline constexpr GUID kWpdObjectPropertiesV1 =
    MakeGuid(0xEF6B490D, 0x5CD8, 0x437A, 0xAF, 0xFC, 0xDA, 0x8B, 0x60, 0xEE, 0x4A, 0x3C);
inline constexpr GUID kWpdFunctionalObjectPropertiesV1 =
    MakeGuid(0x8F052D93, 0xABCA, 0x4FC5, 0xA5, 0xAC, 0xB0, 0x1D, 0xF4, 0xDB, 0xE5, 0x98);
inline constexpr GUID kWpdStorageObjectPropertiesV1 =
    MakeGuid(0x01A3057A, 0x74D6, 0x4E80, 0xBE, 0xA7, 0xDC, 0x4C, 0x21, 0x2C, 0xE5, 0x0A);
inline constexpr GUID kWpdDevicePropertiesV1 =
    MakeGuid(0x26D4979A, 0xE643, 0x4626, 0x9E, 0x2B, 0x73, 0x6D, 0xC0, 0xC9, 0x2F, 0xDC);
inline constexpr GUID kWpdDevicePropertiesV2 =
    MakeGuid(0x463DD662, 0x7FC4, 0x4291, 0x91, 0x1C, 0x7F, 0x4C, 0x9C, 0xCA, 0x97, 0x99);
inline constexpr GUID kWpdClientInformationPropertiesV1 =
    MakeGuid(0x204D9F0C, 0x2292, 0x4080, 0x9F, 0x42, 0x40, 0x66, 0x4E, 0x70, 0xF8, 0x59);
inline constexpr GUID kWpdPropertyAttributesV1 =
    MakeGuid(0xAB7943D8, 0x6332, 0x445F, 0xA0, 0x0D, 0x8D, 0x5E, 0xF1, 0xE9, 0x6F, 0x37);
inline constexpr GUID kWpdEventPropertiesV1 =
    MakeGuid(0x15AB1953, 0xF817, 0x4FEF, 0xA9, 0x21, 0x56, 0x76, 0xE8, 0x38, 0xF6, 0xE0);
inline constexpr GUID kWpdResourceDefaultFmtid =
    MakeGuid(0xE81E79BE, 0x34F0, 0x41BF, 0xB5, 0x3F, 0xF1, 0xA0, 0x6A, 0xE8, 0x78, 0x42);
}  // namespace qb::sys

// Command categories.
inline constexpr GUID WPD_CATEGORY_COMMON =
    ::qb::sys::MakeGuid(0xF0422A9C, 0x5DC8, 0x4440, 0xB5, 0xBD, 0x5D, 0xF2, 0x88, 0x35, 0x65, 0x8A);
inline constexpr GUID WPD_CATEGORY_OBJECT_ENUMERATION =
    ::qb::sys::MakeGuid(0xB7474E91, 0xE7F8, 0x4AD9, 0xB4, 0x00, 0xAD, 0x1A, 0x4B, 0x58, 0xEE, 0xEC);
inline constexpr GUID WPD_CATEGORY_OBJECT_PROPERTIES =
    ::qb::sys::MakeGuid(0x9E5582E4, 0x0814, 0x44E6, 0x98, 0x1A, 0xB2, 0x99, 0x8D, 0x58, 0x38, 0x04);
inline constexpr GUID WPD_CATEGORY_OBJECT_RESOURCES =
    ::qb::sys::MakeGuid(0xB3A2B22D, 0xA595, 0x4108, 0xBE, 0x0A, 0xFC, 0x3C, 0x96, 0x5F, 0x3D, 0x4A);
inline constexpr GUID WPD_CATEGORY_OBJECT_MANAGEMENT =
    ::qb::sys::MakeGuid(0xEF1E43DD, 0xA9ED, 0x4341, 0x8B, 0xCC, 0x18, 0x61, 0x92, 0xAE, 0xA0, 0x89);
inline constexpr GUID WPD_CATEGORY_CAPABILITIES =
    ::qb::sys::MakeGuid(0x0CABEC78, 0x6B74, 0x41C6, 0x92, 0x16, 0x26, 0x39, 0xD1, 0xFC, 0xE3, 0x56);
inline constexpr GUID WPD_CATEGORY_STORAGE =
    ::qb::sys::MakeGuid(0xD8F907A6, 0x34CC, 0x45FA, 0x97, 0xFB, 0xD0, 0x07, 0xFA, 0x47, 0xEC, 0x94);


// ---- Object properties -------------------------------------------------------
#define QB_WPD_OBJ(n) ::qb::sys::MakeKey(::qb::sys::kWpdObjectPropertiesV1, n)
inline constexpr PROPERTYKEY WPD_OBJECT_CONTENT_TYPE = QB_WPD_OBJ(7);
inline constexpr PROPERTYKEY WPD_OBJECT_REFERENCES = QB_WPD_OBJ(14);
inline constexpr PROPERTYKEY WPD_OBJECT_ID = QB_WPD_OBJ(2);
inline constexpr PROPERTYKEY WPD_OBJECT_PARENT_ID = QB_WPD_OBJ(3);
inline constexpr PROPERTYKEY WPD_OBJECT_NAME = QB_WPD_OBJ(4);
inline constexpr PROPERTYKEY WPD_OBJECT_PERSISTENT_UNIQUE_ID = QB_WPD_OBJ(5);
inline constexpr PROPERTYKEY WPD_OBJECT_FORMAT = QB_WPD_OBJ(6);
inline constexpr PROPERTYKEY WPD_OBJECT_ISHIDDEN = QB_WPD_OBJ(9);
inline constexpr PROPERTYKEY WPD_OBJECT_ISSYSTEM = QB_WPD_OBJ(10);
inline constexpr PROPERTYKEY WPD_OBJECT_SIZE = QB_WPD_OBJ(11);
inline constexpr PROPERTYKEY WPD_OBJECT_ORIGINAL_FILE_NAME = QB_WPD_OBJ(12);
inline constexpr PROPERTYKEY WPD_OBJECT_NON_CONSUMABLE = QB_WPD_OBJ(13);
inline constexpr PROPERTYKEY WPD_OBJECT_KEYWORDS = QB_WPD_OBJ(15);
inline constexpr PROPERTYKEY WPD_OBJECT_SYNC_ID = QB_WPD_OBJ(16);
inline constexpr PROPERTYKEY WPD_OBJECT_IS_DRM_PROTECTED = QB_WPD_OBJ(17);
inline constexpr PROPERTYKEY WPD_OBJECT_DATE_CREATED = QB_WPD_OBJ(18);
inline constexpr PROPERTYKEY WPD_OBJECT_DATE_MODIFIED = QB_WPD_OBJ(19);
inline constexpr PROPERTYKEY WPD_OBJECT_DATE_AUTHORED = QB_WPD_OBJ(20);
inline constexpr PROPERTYKEY WPD_OBJECT_BACK_REFERENCES = QB_WPD_OBJ(21);
inline constexpr PROPERTYKEY WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID = QB_WPD_OBJ(23);
inline constexpr PROPERTYKEY WPD_OBJECT_GENERATE_THUMBNAIL_FROM_RESOURCE = QB_WPD_OBJ(24);
inline constexpr PROPERTYKEY WPD_OBJECT_HINT_LOCATION_DISPLAY_NAME = QB_WPD_OBJ(25);
inline constexpr PROPERTYKEY WPD_OBJECT_CAN_DELETE = QB_WPD_OBJ(26);
inline constexpr PROPERTYKEY WPD_OBJECT_LANGUAGE_LOCALE = QB_WPD_OBJ(27);
#undef QB_WPD_OBJ

inline constexpr PROPERTYKEY WPD_FUNCTIONAL_OBJECT_CATEGORY =
    ::qb::sys::MakeKey(::qb::sys::kWpdFunctionalObjectPropertiesV1, 2);

// ---- Storage properties ------------------------------------------------------
#define QB_WPD_STG(n) ::qb::sys::MakeKey(::qb::sys::kWpdStorageObjectPropertiesV1, n)
inline constexpr PROPERTYKEY WPD_STORAGE_TYPE = QB_WPD_STG(2);
inline constexpr PROPERTYKEY WPD_STORAGE_FILE_SYSTEM_TYPE = QB_WPD_STG(3);
inline constexpr PROPERTYKEY WPD_STORAGE_CAPACITY = QB_WPD_STG(4);
inline constexpr PROPERTYKEY WPD_STORAGE_FREE_SPACE_IN_BYTES = QB_WPD_STG(5);
inline constexpr PROPERTYKEY WPD_STORAGE_FREE_SPACE_IN_OBJECTS = QB_WPD_STG(6);
inline constexpr PROPERTYKEY WPD_STORAGE_DESCRIPTION = QB_WPD_STG(7);
inline constexpr PROPERTYKEY WPD_STORAGE_SERIAL_NUMBER = QB_WPD_STG(8);
inline constexpr PROPERTYKEY WPD_STORAGE_MAX_OBJECT_SIZE = QB_WPD_STG(9);
inline constexpr PROPERTYKEY WPD_STORAGE_CAPACITY_IN_OBJECTS = QB_WPD_STG(10);
inline constexpr PROPERTYKEY WPD_STORAGE_ACCESS_CAPABILITY = QB_WPD_STG(11);
#undef QB_WPD_STG

// ---- Device properties -------------------------------------------------------
#define QB_WPD_DEV(n) ::qb::sys::MakeKey(::qb::sys::kWpdDevicePropertiesV1, n)
inline constexpr PROPERTYKEY WPD_DEVICE_SYNC_PARTNER = QB_WPD_DEV(2);
inline constexpr PROPERTYKEY WPD_DEVICE_FIRMWARE_VERSION = QB_WPD_DEV(3);
inline constexpr PROPERTYKEY WPD_DEVICE_POWER_LEVEL = QB_WPD_DEV(4);
inline constexpr PROPERTYKEY WPD_DEVICE_POWER_SOURCE = QB_WPD_DEV(5);
inline constexpr PROPERTYKEY WPD_DEVICE_PROTOCOL = QB_WPD_DEV(6);
inline constexpr PROPERTYKEY WPD_DEVICE_MANUFACTURER = QB_WPD_DEV(7);
inline constexpr PROPERTYKEY WPD_DEVICE_MODEL = QB_WPD_DEV(8);
inline constexpr PROPERTYKEY WPD_DEVICE_SERIAL_NUMBER = QB_WPD_DEV(9);
inline constexpr PROPERTYKEY WPD_DEVICE_SUPPORTS_NON_CONSUMABLE = QB_WPD_DEV(10);
inline constexpr PROPERTYKEY WPD_DEVICE_DATETIME = QB_WPD_DEV(11);
inline constexpr PROPERTYKEY WPD_DEVICE_FRIENDLY_NAME = QB_WPD_DEV(12);
inline constexpr PROPERTYKEY WPD_DEVICE_SUPPORTED_DRM_SCHEMES = QB_WPD_DEV(13);
inline constexpr PROPERTYKEY WPD_DEVICE_SUPPORTED_FORMATS_ARE_ORDERED = QB_WPD_DEV(14);
inline constexpr PROPERTYKEY WPD_DEVICE_TYPE = QB_WPD_DEV(15);
inline constexpr PROPERTYKEY WPD_DEVICE_NETWORK_IDENTIFIER = QB_WPD_DEV(16);
#undef QB_WPD_DEV
#define QB_WPD_DEV2(n) ::qb::sys::MakeKey(::qb::sys::kWpdDevicePropertiesV2, n)
inline constexpr PROPERTYKEY WPD_DEVICE_FUNCTIONAL_UNIQUE_ID = QB_WPD_DEV2(2);
inline constexpr PROPERTYKEY WPD_DEVICE_MODEL_UNIQUE_ID = QB_WPD_DEV2(3);
inline constexpr PROPERTYKEY WPD_DEVICE_TRANSPORT = QB_WPD_DEV2(4);
inline constexpr PROPERTYKEY WPD_DEVICE_USE_DEVICE_STAGE = QB_WPD_DEV2(5);
#undef QB_WPD_DEV2

// ---- Client information ------------------------------------------------------
#define QB_WPD_CLI(n) ::qb::sys::MakeKey(::qb::sys::kWpdClientInformationPropertiesV1, n)
inline constexpr PROPERTYKEY WPD_CLIENT_NAME = QB_WPD_CLI(2);
inline constexpr PROPERTYKEY WPD_CLIENT_MAJOR_VERSION = QB_WPD_CLI(3);
inline constexpr PROPERTYKEY WPD_CLIENT_MINOR_VERSION = QB_WPD_CLI(4);
inline constexpr PROPERTYKEY WPD_CLIENT_REVISION = QB_WPD_CLI(5);
inline constexpr PROPERTYKEY WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE = QB_WPD_CLI(8);
inline constexpr PROPERTYKEY WPD_CLIENT_DESIRED_ACCESS = QB_WPD_CLI(9);
inline constexpr PROPERTYKEY WPD_CLIENT_SHARE_MODE = QB_WPD_CLI(10);
inline constexpr PROPERTYKEY WPD_CLIENT_EVENT_COOKIE = QB_WPD_CLI(11);
inline constexpr PROPERTYKEY WPD_CLIENT_MINIMUM_RESULTS_BUFFER_SIZE = QB_WPD_CLI(12);
inline constexpr PROPERTYKEY WPD_CLIENT_MANUAL_CLOSE_ON_DISCONNECT = QB_WPD_CLI(13);
#undef QB_WPD_CLI

// ---- Property attributes -----------------------------------------------------
#define QB_WPD_ATT(n) ::qb::sys::MakeKey(::qb::sys::kWpdPropertyAttributesV1, n)
inline constexpr PROPERTYKEY WPD_PROPERTY_ATTRIBUTE_FORM = QB_WPD_ATT(2);
inline constexpr PROPERTYKEY WPD_PROPERTY_ATTRIBUTE_CAN_READ = QB_WPD_ATT(3);
inline constexpr PROPERTYKEY WPD_PROPERTY_ATTRIBUTE_CAN_WRITE = QB_WPD_ATT(4);
inline constexpr PROPERTYKEY WPD_PROPERTY_ATTRIBUTE_CAN_DELETE = QB_WPD_ATT(5);
inline constexpr PROPERTYKEY WPD_PROPERTY_ATTRIBUTE_DEFAULT_VALUE = QB_WPD_ATT(6);
inline constexpr PROPERTYKEY WPD_PROPERTY_ATTRIBUTE_FAST_PROPERTY = QB_WPD_ATT(7);
#undef QB_WPD_ATT

// ---- Event parameters --------------------------------------------------------
#define QB_WPD_EVP(n) ::qb::sys::MakeKey(::qb::sys::kWpdEventPropertiesV1, n)
inline constexpr PROPERTYKEY WPD_EVENT_PARAMETER_PNP_DEVICE_ID = QB_WPD_EVP(2);
inline constexpr PROPERTYKEY WPD_EVENT_PARAMETER_EVENT_ID = QB_WPD_EVP(3);
inline constexpr PROPERTYKEY WPD_EVENT_PARAMETER_OPERATION_STATE = QB_WPD_EVP(4);
inline constexpr PROPERTYKEY WPD_EVENT_PARAMETER_OPERATION_PROGRESS = QB_WPD_EVP(5);
inline constexpr PROPERTYKEY WPD_EVENT_PARAMETER_OBJECT_PARENT_PERSISTENT_UNIQUE_ID = QB_WPD_EVP(6);
inline constexpr PROPERTYKEY WPD_EVENT_PARAMETER_OBJECT_CREATION_COOKIE = QB_WPD_EVP(7);
inline constexpr PROPERTYKEY WPD_EVENT_PARAMETER_CHILD_HIERARCHY_CHANGED = QB_WPD_EVP(8);
#undef QB_WPD_EVP

// ---- Resources ---------------------------------------------------------------
inline constexpr PROPERTYKEY WPD_RESOURCE_DEFAULT = ::qb::sys::MakeKey(::qb::sys::kWpdResourceDefaultFmtid, 0);

// ---- Commands (category GUID + id) -------------------------------------------
#define QB_WPD_CMD(cat, n) ::qb::sys::MakeKey(::cat, n)
inline constexpr PROPERTYKEY WPD_COMMAND_COMMON_RESET_DEVICE = QB_WPD_CMD(WPD_CATEGORY_COMMON, 2);
inline constexpr PROPERTYKEY WPD_COMMAND_COMMON_GET_OBJECT_IDS_FROM_PERSISTENT_UNIQUE_IDS =
    QB_WPD_CMD(WPD_CATEGORY_COMMON, 3);
inline constexpr PROPERTYKEY WPD_COMMAND_COMMON_SAVE_CLIENT_INFORMATION = QB_WPD_CMD(WPD_CATEGORY_COMMON, 4);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_ENUMERATION_START_FIND =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_ENUMERATION, 2);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_ENUMERATION_FIND_NEXT =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_ENUMERATION, 3);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_ENUMERATION_END_FIND =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_ENUMERATION, 4);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_PROPERTIES_GET_SUPPORTED =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_PROPERTIES, 2);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_PROPERTIES_GET_ATTRIBUTES =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_PROPERTIES, 3);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_PROPERTIES_GET = QB_WPD_CMD(WPD_CATEGORY_OBJECT_PROPERTIES, 4);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_PROPERTIES_SET = QB_WPD_CMD(WPD_CATEGORY_OBJECT_PROPERTIES, 5);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_PROPERTIES_GET_ALL =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_PROPERTIES, 6);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_PROPERTIES_DELETE =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_PROPERTIES, 7);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_RESOURCES_GET_SUPPORTED =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_RESOURCES, 2);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_RESOURCES_GET_ATTRIBUTES =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_RESOURCES, 3);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_RESOURCES_OPEN = QB_WPD_CMD(WPD_CATEGORY_OBJECT_RESOURCES, 4);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_RESOURCES_READ = QB_WPD_CMD(WPD_CATEGORY_OBJECT_RESOURCES, 5);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_RESOURCES_WRITE = QB_WPD_CMD(WPD_CATEGORY_OBJECT_RESOURCES, 6);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_RESOURCES_CLOSE = QB_WPD_CMD(WPD_CATEGORY_OBJECT_RESOURCES, 7);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_RESOURCES_DELETE =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_RESOURCES, 8);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_CREATE_OBJECT_WITH_PROPERTIES_ONLY =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 2);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_CREATE_OBJECT_WITH_PROPERTIES_AND_DATA =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 3);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_WRITE_OBJECT_DATA =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 4);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_COMMIT_OBJECT =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 5);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_REVERT_OBJECT =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 6);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_DELETE_OBJECTS =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 7);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_MOVE_OBJECTS =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 8);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_COPY_OBJECTS =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 9);
inline constexpr PROPERTYKEY WPD_COMMAND_OBJECT_MANAGEMENT_UPDATE_OBJECT_WITH_PROPERTIES_AND_DATA =
    QB_WPD_CMD(WPD_CATEGORY_OBJECT_MANAGEMENT, 10);
inline constexpr PROPERTYKEY WPD_COMMAND_CAPABILITIES_GET_SUPPORTED_COMMANDS =
    QB_WPD_CMD(WPD_CATEGORY_CAPABILITIES, 2);
inline constexpr PROPERTYKEY WPD_COMMAND_CAPABILITIES_GET_COMMAND_OPTIONS =
    QB_WPD_CMD(WPD_CATEGORY_CAPABILITIES, 3);
inline constexpr PROPERTYKEY WPD_COMMAND_CAPABILITIES_GET_SUPPORTED_FUNCTIONAL_CATEGORIES =
    QB_WPD_CMD(WPD_CATEGORY_CAPABILITIES, 4);
inline constexpr PROPERTYKEY WPD_COMMAND_CAPABILITIES_GET_FUNCTIONAL_OBJECTS =
    QB_WPD_CMD(WPD_CATEGORY_CAPABILITIES, 5);
inline constexpr PROPERTYKEY WPD_COMMAND_CAPABILITIES_GET_SUPPORTED_CONTENT_TYPES =
    QB_WPD_CMD(WPD_CATEGORY_CAPABILITIES, 6);
inline constexpr PROPERTYKEY WPD_COMMAND_STORAGE_FORMAT = QB_WPD_CMD(WPD_CATEGORY_STORAGE, 2);
inline constexpr PROPERTYKEY WPD_COMMAND_STORAGE_EJECT = QB_WPD_CMD(WPD_CATEGORY_STORAGE, 4);
#undef QB_WPD_CMD

// ---- Content types -----------------------------------------------------------
using ::qb::sys::MakeGuid;
inline constexpr GUID WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT =
    MakeGuid(0x99ED0160, 0x17FF, 0x4C44, 0x9D, 0x98, 0x1D, 0x7A, 0x6F, 0x94, 0x19, 0x21);
inline constexpr GUID WPD_CONTENT_TYPE_FOLDER =
    MakeGuid(0x27E2E392, 0xA111, 0x48E0, 0xAB, 0x0C, 0xE1, 0x77, 0x05, 0xA0, 0x5F, 0x85);
inline constexpr GUID WPD_CONTENT_TYPE_IMAGE =
    MakeGuid(0xEF2107D5, 0xA52A, 0x4243, 0xA2, 0x6B, 0x62, 0xD4, 0x17, 0x6D, 0x76, 0x03);
inline constexpr GUID WPD_CONTENT_TYPE_DOCUMENT =
    MakeGuid(0x680ADF52, 0x950A, 0x4041, 0x9B, 0x41, 0x65, 0xE3, 0x93, 0x64, 0x81, 0x55);
inline constexpr GUID WPD_CONTENT_TYPE_CONTACT =
    MakeGuid(0xEABA8313, 0x4525, 0x4707, 0x9F, 0x0E, 0x87, 0xC6, 0x80, 0x8E, 0x94, 0x35);
inline constexpr GUID WPD_CONTENT_TYPE_AUDIO =
    MakeGuid(0x4AD2C85E, 0x5E2D, 0x45E5, 0x88, 0x64, 0x4F, 0x22, 0x9E, 0x3C, 0x6C, 0xF0);
inline constexpr GUID WPD_CONTENT_TYPE_VIDEO =
    MakeGuid(0x9261B03C, 0x3D78, 0x4519, 0x85, 0xE3, 0x02, 0xC5, 0xE1, 0xF5, 0x0B, 0xB9);
inline constexpr GUID WPD_CONTENT_TYPE_PLAYLIST =
    MakeGuid(0x1A33F7E4, 0xAF13, 0x48F5, 0x99, 0x4E, 0x77, 0x36, 0x9D, 0xFE, 0x04, 0xA3);
inline constexpr GUID WPD_CONTENT_TYPE_GENERIC_FILE =
    MakeGuid(0x0085E0A6, 0x8D34, 0x45D7, 0xBC, 0x5C, 0x44, 0x7E, 0x59, 0xC7, 0x3D, 0x48);
inline constexpr GUID WPD_CONTENT_TYPE_UNSPECIFIED =
    MakeGuid(0x28D8D31E, 0x249C, 0x454E, 0xAA, 0xBC, 0x34, 0x88, 0x31, 0x68, 0xE6, 0x34);
inline constexpr GUID WPD_CONTENT_TYPE_ALL =
    MakeGuid(0x80E170D2, 0x1055, 0x4A3E, 0xB9, 0x52, 0x82, 0xCC, 0x4F, 0x8A, 0x86, 0x89);

// ---- Functional categories ---------------------------------------------------
inline constexpr GUID WPD_FUNCTIONAL_CATEGORY_DEVICE =
    MakeGuid(0x08EA466B, 0xE3A4, 0x4336, 0xA1, 0xF3, 0xA4, 0x4D, 0x2B, 0x5C, 0x43, 0x8C);
inline constexpr GUID WPD_FUNCTIONAL_CATEGORY_STORAGE =
    MakeGuid(0x23F05BBC, 0x15DE, 0x4C2A, 0xA5, 0x5B, 0xA9, 0xAF, 0x5C, 0xE4, 0x12, 0xEF);
inline constexpr GUID WPD_FUNCTIONAL_CATEGORY_STILL_IMAGE_CAPTURE =
    MakeGuid(0x613CA327, 0xAB93, 0x4900, 0xB4, 0xFA, 0x89, 0x5B, 0xB5, 0x87, 0x4B, 0x79);
inline constexpr GUID WPD_FUNCTIONAL_CATEGORY_AUDIO_CAPTURE =
    MakeGuid(0x3F2A1919, 0xC7C2, 0x4A00, 0x85, 0x5D, 0xF5, 0x7C, 0xF0, 0x6D, 0xEB, 0xBB);
inline constexpr GUID WPD_FUNCTIONAL_CATEGORY_SMS =
    MakeGuid(0x0044A0B1, 0xC1E9, 0x4AFD, 0xB3, 0x58, 0xA6, 0x2C, 0x61, 0x17, 0xC9, 0xCF);
inline constexpr GUID WPD_FUNCTIONAL_CATEGORY_RENDERING_INFORMATION =
    MakeGuid(0x08600BA4, 0xA7BA, 0x4A01, 0xAB, 0x0E, 0x00, 0x65, 0xD0, 0xA3, 0x56, 0xD3);
inline constexpr GUID WPD_FUNCTIONAL_CATEGORY_ALL =
    MakeGuid(0x2D8A6512, 0xA74C, 0x448E, 0xBA, 0x8A, 0xF4, 0xAC, 0x07, 0xC4, 0x93, 0x99);

// ---- Object formats (MTP format code in the first field) ---------------------
constexpr GUID QbWpdFormat(uint32_t code) {
  return MakeGuid(code, 0xAE6C, 0x4804, 0x98, 0xBA, 0xC5, 0x7B, 0x46, 0x96, 0x5F, 0xE7);
}
inline constexpr GUID WPD_OBJECT_FORMAT_UNSPECIFIED = QbWpdFormat(0x30000000);
inline constexpr GUID WPD_OBJECT_FORMAT_PROPERTIES_ONLY = QbWpdFormat(0x30010000);
inline constexpr GUID WPD_OBJECT_FORMAT_TEXT = QbWpdFormat(0x30040000);
inline constexpr GUID WPD_OBJECT_FORMAT_HTML = QbWpdFormat(0x30050000);
inline constexpr GUID WPD_OBJECT_FORMAT_WAVE = QbWpdFormat(0x30080000);
inline constexpr GUID WPD_OBJECT_FORMAT_MP3 = QbWpdFormat(0x30090000);
inline constexpr GUID WPD_OBJECT_FORMAT_AVI = QbWpdFormat(0x300A0000);
inline constexpr GUID WPD_OBJECT_FORMAT_MPEG = QbWpdFormat(0x300B0000);
inline constexpr GUID WPD_OBJECT_FORMAT_EXIF = QbWpdFormat(0x38010000);
inline constexpr GUID WPD_OBJECT_FORMAT_BMP = QbWpdFormat(0x38040000);
inline constexpr GUID WPD_OBJECT_FORMAT_GIF = QbWpdFormat(0x38070000);
inline constexpr GUID WPD_OBJECT_FORMAT_JFIF = QbWpdFormat(0x38080000);
inline constexpr GUID WPD_OBJECT_FORMAT_PNG = QbWpdFormat(0x380B0000);
inline constexpr GUID WPD_OBJECT_FORMAT_TIFF = QbWpdFormat(0x380D0000);
inline constexpr GUID WPD_OBJECT_FORMAT_WMA = QbWpdFormat(0xB9010000);
inline constexpr GUID WPD_OBJECT_FORMAT_MP4 = QbWpdFormat(0xB9820000);
inline constexpr GUID WPD_OBJECT_FORMAT_ALL =
    MakeGuid(0xC1F62EB2, 0x4BB3, 0x479C, 0x9C, 0xFA, 0x05, 0xB5, 0xF3, 0xA5, 0x7B, 0x22);

// ---- Events ------------------------------------------------------------------
inline constexpr GUID WPD_EVENT_NOTIFICATION =
    MakeGuid(0x2BA2E40A, 0x6B4C, 0x4295, 0xBB, 0x43, 0x26, 0x32, 0x2B, 0x99, 0xAE, 0xB2);
inline constexpr GUID WPD_EVENT_OBJECT_ADDED =
    MakeGuid(0xA726DA95, 0xE207, 0x4B02, 0x8D, 0x44, 0xBE, 0xF2, 0xE8, 0x6C, 0xBF, 0xFC);
inline constexpr GUID WPD_EVENT_OBJECT_REMOVED =
    MakeGuid(0xBE82AB88, 0xA52C, 0x4823, 0x96, 0xE5, 0xD0, 0x27, 0x26, 0x71, 0xFC, 0x38);
inline constexpr GUID WPD_EVENT_OBJECT_UPDATED =
    MakeGuid(0x1445A759, 0x2E01, 0x485D, 0x9F, 0x27, 0xFF, 0x07, 0xDA, 0xE6, 0x97, 0xAB);
inline constexpr GUID WPD_EVENT_DEVICE_RESET =
    MakeGuid(0x7755CF53, 0xC1ED, 0x44F3, 0xB5, 0xA2, 0x45, 0x1E, 0x2C, 0x37, 0x6B, 0x27);
inline constexpr GUID WPD_EVENT_DEVICE_CAPABILITIES_UPDATED =
    MakeGuid(0x36885AA1, 0xCD54, 0x4DAA, 0xB3, 0xD0, 0xAF, 0xB3, 0xE0, 0x3F, 0x59, 0x99);
inline constexpr GUID WPD_EVENT_STORAGE_FORMAT =
    MakeGuid(0x3782616B, 0x22BC, 0x4474, 0xA2, 0x51, 0x30, 0x70, 0xF8, 0xD3, 0x88, 0x57);
inline constexpr GUID WPD_EVENT_OBJECT_TRANSFER_REQUESTED =
    MakeGuid(0x8D16A0A1, 0xF2C6, 0x41DA, 0x8F, 0x19, 0x5E, 0x53, 0x72, 0x1A, 0xDB, 0xF2);
inline constexpr GUID WPD_EVENT_DEVICE_REMOVED =
    MakeGuid(0xE4CBCA1B, 0x6918, 0x48B9, 0x85, 0xEE, 0x02, 0xBE, 0x7C, 0x85, 0x0A, 0xF9);

// Device interface class of portable devices (the last part of a PnP id).
inline constexpr GUID GUID_DEVINTERFACE_WPD =
    MakeGuid(0x6AC27878, 0xA6FA, 0x4155, 0xBA, 0x85, 0xF9, 0x8F, 0x49, 0x1D, 0x4F, 0x33);

// ---- Fixed values ------------------------------------------------------------
// Object id of the device object, the root of every device's object tree.
inline constexpr const char* WPD_DEVICE_OBJECT_ID = "DEVICE";

enum WPD_DEVICE_TYPES : uint32_t {
  WPD_DEVICE_TYPE_GENERIC = 0,
  WPD_DEVICE_TYPE_CAMERA = 1,
  WPD_DEVICE_TYPE_MEDIA_PLAYER = 2,
  WPD_DEVICE_TYPE_PHONE = 3,
  WPD_DEVICE_TYPE_VIDEO = 4,
  WPD_DEVICE_TYPE_PERSONAL_INFORMATION_MANAGER = 5,
  WPD_DEVICE_TYPE_AUDIO_RECORDER = 6,
};

enum WPD_POWER_SOURCES : uint32_t { WPD_POWER_SOURCE_BATTERY = 0, WPD_POWER_SOURCE_EXTERNAL = 1 };

enum WPD_STORAGE_TYPE_VALUES : uint32_t {
  WPD_STORAGE_TYPE_UNDEFINED = 0,
  WPD_STORAGE_TYPE_FIXED_ROM = 1,
  WPD_STORAGE_TYPE_REMOVABLE_ROM = 2,
  WPD_STORAGE_TYPE_FIXED_RAM = 3,
  WPD_STORAGE_TYPE_REMOVABLE_RAM = 4,
};

enum WPD_STORAGE_ACCESS_CAPABILITY_VALUES : uint32_t {
  WPD_STORAGE_ACCESS_CAPABILITY_READWRITE = 0,
  WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITHOUT_OBJECT_DELETION = 1,
  WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITH_OBJECT_DELETION = 2,
};

// IPortableDeviceContent::Delete options.
enum DELETE_OBJECT_OPTIONS : uint32_t {
  PORTABLE_DEVICE_DELETE_NO_RECURSION = 0,
  PORTABLE_DEVICE_DELETE_WITH_RECURSION = 1,
};

// Values of WPD_CLIENT_DESIRED_ACCESS and WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE.
inline constexpr uint32_t GENERIC_READ = 0x80000000u;
inline constexpr uint32_t GENERIC_WRITE = 0x40000000u;
inline constexpr uint32_t SECURITY_IMPERSONATION = 0x00020000u;  // SecurityImpersonation << 16
inline constexpr uint32_t SECURITY_SQOS_PRESENT = 0x00100000u;

namespace qb::sys {

// One row of the name table: a property key (pid as published) or a plain
// GUID (pid kWpdPlainGuid).
struct WpdKeyEntry {
  const char* name;
  GUID guid;
  uint32_t pid;
};
inline constexpr uint32_t kWpdPlainGuid = 0xFFFFFFFFu;

// Every name of this header, keys and plain GUIDs.
std::span<const WpdKeyEntry> WpdKeyTable();

// "WPD_OBJECT_NAME" for a known key, else null.
const char* WpdKeyName(const PROPERTYKEY& key);
// "WPD_CONTENT_TYPE_FOLDER" for a known plain GUID, else null.
const char* WpdGuidName(const GUID& guid);

// "{EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C}" (upper case, with braces).
std::string FormatGuid(const GUID& guid);
// Reads the form above, with or without braces, any case. False on bad text.
bool ParseGuid(const std::string& text, GUID* out);

}  // namespace qb::sys

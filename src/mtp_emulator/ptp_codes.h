#pragma once
// Codes of PTP (ISO 15740) and MTP 1.1 as the USB transport carries them:
// container types, operations, responses, events, properties, data types
// and object formats. Values are those of the published standards.
#include <cstdint>

namespace qb::mtpemu::ptp {

// Containers.
inline constexpr uint16_t kCommandBlock = 1;
inline constexpr uint16_t kDataBlock = 2;
inline constexpr uint16_t kResponseBlock = 3;
inline constexpr uint16_t kEventBlock = 4;
inline constexpr uint32_t kHeaderSize = 12;

// Operations.
inline constexpr uint16_t kGetDeviceInfo = 0x1001;
inline constexpr uint16_t kOpenSession = 0x1002;
inline constexpr uint16_t kCloseSession = 0x1003;
inline constexpr uint16_t kGetStorageIDs = 0x1004;
inline constexpr uint16_t kGetStorageInfo = 0x1005;
inline constexpr uint16_t kGetNumObjects = 0x1006;
inline constexpr uint16_t kGetObjectHandles = 0x1007;
inline constexpr uint16_t kGetObjectInfo = 0x1008;
inline constexpr uint16_t kGetObject = 0x1009;
inline constexpr uint16_t kDeleteObject = 0x100B;
inline constexpr uint16_t kSendObjectInfo = 0x100C;
inline constexpr uint16_t kSendObject = 0x100D;
inline constexpr uint16_t kGetDevicePropDesc = 0x1014;
inline constexpr uint16_t kGetDevicePropValue = 0x1015;
inline constexpr uint16_t kSetDevicePropValue = 0x1016;
inline constexpr uint16_t kMoveObject = 0x1019;
inline constexpr uint16_t kCopyObject = 0x101A;
inline constexpr uint16_t kGetPartialObject = 0x101B;
inline constexpr uint16_t kGetObjectPropsSupported = 0x9801;
inline constexpr uint16_t kGetObjectPropDesc = 0x9802;
inline constexpr uint16_t kGetObjectPropValue = 0x9803;
inline constexpr uint16_t kSetObjectPropValue = 0x9804;
inline constexpr uint16_t kGetObjPropList = 0x9805;
inline constexpr uint16_t kGetObjectReferences = 0x9810;
inline constexpr uint16_t kGetPartialObject64 = 0x95C1;  // Android extension

// Responses.
inline constexpr uint16_t kOK = 0x2001;
inline constexpr uint16_t kGeneralError = 0x2002;
inline constexpr uint16_t kSessionNotOpen = 0x2003;
inline constexpr uint16_t kInvalidTransactionID = 0x2004;
inline constexpr uint16_t kOperationNotSupported = 0x2005;
inline constexpr uint16_t kParameterNotSupported = 0x2006;
inline constexpr uint16_t kIncompleteTransfer = 0x2007;
inline constexpr uint16_t kInvalidStorageID = 0x2008;
inline constexpr uint16_t kInvalidObjectHandle = 0x2009;
inline constexpr uint16_t kDevicePropNotSupported = 0x200A;
inline constexpr uint16_t kInvalidObjectFormatCode = 0x200B;
inline constexpr uint16_t kStoreFull = 0x200C;
inline constexpr uint16_t kObjectWriteProtected = 0x200D;
inline constexpr uint16_t kStoreReadOnly = 0x200E;
inline constexpr uint16_t kAccessDenied = 0x200F;
inline constexpr uint16_t kPartialDeletion = 0x2012;
inline constexpr uint16_t kNoValidObjectInfo = 0x2015;
inline constexpr uint16_t kDeviceBusy = 0x2019;
inline constexpr uint16_t kInvalidParentObject = 0x201A;
inline constexpr uint16_t kInvalidDevicePropValue = 0x201C;
inline constexpr uint16_t kInvalidParameter = 0x201D;
inline constexpr uint16_t kSessionAlreadyOpen = 0x201E;
inline constexpr uint16_t kTransactionCancelled = 0x201F;
inline constexpr uint16_t kInvalidObjectPropCode = 0xA801;
inline constexpr uint16_t kInvalidObjectPropValue = 0xA803;
inline constexpr uint16_t kSpecificationByGroupUnsupported = 0xA807;
inline constexpr uint16_t kSpecificationByDepthUnsupported = 0xA808;
inline constexpr uint16_t kObjectPropNotSupported = 0xA80A;

// Events.
inline constexpr uint16_t kEventObjectAdded = 0x4002;
inline constexpr uint16_t kEventObjectRemoved = 0x4003;
inline constexpr uint16_t kEventStoreAdded = 0x4004;
inline constexpr uint16_t kEventStoreRemoved = 0x4005;
inline constexpr uint16_t kEventDevicePropChanged = 0x4006;
inline constexpr uint16_t kEventObjectInfoChanged = 0x4007;

// Device properties.
inline constexpr uint16_t kPropBatteryLevel = 0x5001;
inline constexpr uint16_t kPropSyncPartner = 0xD401;
inline constexpr uint16_t kPropFriendlyName = 0xD402;

// Object properties.
inline constexpr uint16_t kOpcStorageID = 0xDC01;
inline constexpr uint16_t kOpcObjectFormat = 0xDC02;
inline constexpr uint16_t kOpcProtectionStatus = 0xDC03;
inline constexpr uint16_t kOpcObjectSize = 0xDC04;
inline constexpr uint16_t kOpcAssociationType = 0xDC05;
inline constexpr uint16_t kOpcAssociationDesc = 0xDC06;
inline constexpr uint16_t kOpcObjectFileName = 0xDC07;
inline constexpr uint16_t kOpcDateCreated = 0xDC08;
inline constexpr uint16_t kOpcDateModified = 0xDC09;
inline constexpr uint16_t kOpcParentObject = 0xDC0B;
inline constexpr uint16_t kOpcHidden = 0xDC0D;
inline constexpr uint16_t kOpcPersistentUniqueObjectIdentifier = 0xDC41;
inline constexpr uint16_t kOpcName = 0xDC44;

// Data types.
inline constexpr uint16_t kUint8 = 0x0002;
inline constexpr uint16_t kUint16 = 0x0004;
inline constexpr uint16_t kUint32 = 0x0006;
inline constexpr uint16_t kUint64 = 0x0008;
inline constexpr uint16_t kUint128 = 0x000A;
inline constexpr uint16_t kString = 0xFFFF;

// Object formats.
inline constexpr uint16_t kFormatUndefined = 0x3000;
inline constexpr uint16_t kFormatAssociation = 0x3001;
inline constexpr uint16_t kAssociationGenericFolder = 0x0001;

}  // namespace qb::mtpemu::ptp

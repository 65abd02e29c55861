#pragma once
// Result codes of the program: HRESULTs of the device layer, NTSTATUS answers
// of the drive, Win32 error values used inside the drive operations. They keep
// their Windows values because they are logged, compared and relayed as such.
#include <cstdint>

using HRESULT = int32_t;
using NTSTATUS = int32_t;
using DWORD = uint32_t;

constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
constexpr bool FAILED(HRESULT hr) { return hr < 0; }
constexpr HRESULT HRESULT_FROM_WIN32(DWORD err) {
  return err == 0 ? 0 : static_cast<HRESULT>((err & 0xFFFF) | 0x80070000u);
}

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_ABORT = static_cast<HRESULT>(0x80004004u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);
constexpr HRESULT E_FILE_NOT_FOUND = static_cast<HRESULT>(0x80070002u);
constexpr HRESULT E_PATH_NOT_FOUND = static_cast<HRESULT>(0x80070003u);
constexpr HRESULT E_ACCESSDENIED = static_cast<HRESULT>(0x80070005u);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT E_ERROR_NOT_SUPPORTED = static_cast<HRESULT>(0x80070032u);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT E_DISK_FULL = static_cast<HRESULT>(0x80070070u);
constexpr HRESULT E_ERROR_BUSY = static_cast<HRESULT>(0x800700AAu);
constexpr HRESULT E_ALREADY_EXISTS = static_cast<HRESULT>(0x800700B7u);
constexpr HRESULT E_ERROR_NOT_FOUND = static_cast<HRESULT>(0x80070490u);
constexpr HRESULT E_TIMEOUT = static_cast<HRESULT>(0x800705B4u);
constexpr HRESULT RPC_E_SERVER_UNAVAIL = static_cast<HRESULT>(0x800706BAu);
constexpr HRESULT WIA_ERROR_OFFLINE = static_cast<HRESULT>(0x80210005u);
constexpr HRESULT WIA_ERROR_BUSY = static_cast<HRESULT>(0x80210006u);
constexpr HRESULT E_WPD_DEVICE_NOT_OPEN = static_cast<HRESULT>(0x802A0002u);
constexpr HRESULT E_WPD_OBJECT_NOT_COMMITED = static_cast<HRESULT>(0x802A0005u);
constexpr HRESULT E_WPD_DEVICE_IS_HUNG = static_cast<HRESULT>(0x802A0006u);

constexpr NTSTATUS STATUS_SUCCESS = 0;
constexpr NTSTATUS STATUS_UNSUCCESSFUL = static_cast<NTSTATUS>(0xC0000001u);
constexpr NTSTATUS STATUS_NOT_IMPLEMENTED = static_cast<NTSTATUS>(0xC0000002u);
constexpr NTSTATUS STATUS_INVALID_PARAMETER = static_cast<NTSTATUS>(0xC000000Du);
constexpr NTSTATUS STATUS_END_OF_FILE = static_cast<NTSTATUS>(0xC0000011u);
constexpr NTSTATUS STATUS_ACCESS_DENIED = static_cast<NTSTATUS>(0xC0000022u);
constexpr NTSTATUS STATUS_BUFFER_OVERFLOW = static_cast<NTSTATUS>(0x80000005u);
constexpr NTSTATUS STATUS_OBJECT_NAME_INVALID = static_cast<NTSTATUS>(0xC0000033u);
constexpr NTSTATUS STATUS_OBJECT_NAME_NOT_FOUND = static_cast<NTSTATUS>(0xC0000034u);
constexpr NTSTATUS STATUS_OBJECT_NAME_COLLISION = static_cast<NTSTATUS>(0xC0000035u);
constexpr NTSTATUS STATUS_OBJECT_PATH_NOT_FOUND = static_cast<NTSTATUS>(0xC000003Au);
constexpr NTSTATUS STATUS_SHARING_VIOLATION = static_cast<NTSTATUS>(0xC0000043u);
constexpr NTSTATUS STATUS_PRIVILEGE_NOT_HELD = static_cast<NTSTATUS>(0xC0000061u);
constexpr NTSTATUS STATUS_DISK_FULL = static_cast<NTSTATUS>(0xC000007Fu);
constexpr NTSTATUS STATUS_DEVICE_NOT_READY = static_cast<NTSTATUS>(0xC00000A3u);
constexpr NTSTATUS STATUS_NOT_SUPPORTED = static_cast<NTSTATUS>(0xC00000BBu);
constexpr NTSTATUS STATUS_FILE_IS_A_DIRECTORY = static_cast<NTSTATUS>(0xC00000BAu);
constexpr NTSTATUS STATUS_DIRECTORY_NOT_EMPTY = static_cast<NTSTATUS>(0xC0000101u);
constexpr NTSTATUS STATUS_NOT_A_DIRECTORY = static_cast<NTSTATUS>(0xC0000103u);
constexpr NTSTATUS STATUS_CANNOT_DELETE = static_cast<NTSTATUS>(0xC0000121u);
constexpr NTSTATUS STATUS_MEDIA_WRITE_PROTECTED = static_cast<NTSTATUS>(0xC00000A2u);

// Win32 error values used inside the drive operations.
constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_NOT_READY = 21;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_HANDLE_EOF = 38;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
constexpr DWORD ERROR_BUSY = 170;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_DIRECTORY = 267;
constexpr DWORD ERROR_NOT_FOUND = 1168;
constexpr DWORD ERROR_TIMEOUT = 1460;

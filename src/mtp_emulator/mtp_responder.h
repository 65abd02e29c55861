#pragma once
// The MTP responder of one emulated device: takes the host's containers
// from the bulk OUT pipe, carries out each operation on the simulated
// device through the object model, and queues the data and response
// containers for the bulk IN pipe. Runs on the thread of the bulk pipe.
//
// Lock: m_ guards the session and the upload under way; it is held while an
// operation runs and taken by the event path before it names an object, so
// a committed upload is bound to its handle before its event is told.
// HandleTable's lock is taken after m_.
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "mtp_emulator/mtp_objects.h"
#include "mtp_emulator/usb_bulk.h"
#include "platform/portable/portable.h"

namespace qb::mtpemu {

class MtpResponder : public OutSink {
 public:
  MtpResponder(qb::portable::IPortableDevice* device, InQueue* in);

  void OnCommand(const std::vector<uint8_t>& container) override;
  void OnDataBegin(uint16_t code, uint32_t transaction, uint64_t payloadLength) override;
  void OnDataChunk(const uint8_t* data, size_t size) override;
  void OnDataEnd() override;

  // The device was reset or its session ended from outside.
  void EndSession();
  bool SessionOpen();
  // Cancels the transaction under way (the host's cancel request).
  void Cancel();
  // An event of the model as an MTP event container; none when the host is
  // not to hear of it.
  std::optional<std::vector<uint8_t>> TranslateEvent(const qb::portable::PortableDeviceValues& event);
  // Counts the operations run (the speed model charges each one).
  uint64_t Operations() const { return operations_; }
  // How often each operation code was received; with
  // QUILLBOX_MTP_EMULATOR_STATS naming a file, the same table is written
  // there (whole, through a rename) before each operation is carried out, so
  // a host that got its answer reads a table that counts its request.
  std::map<uint16_t, uint64_t> OperationCounts();

 private:
  struct Command {
    uint16_t code = 0;
    uint32_t transaction = 0;
    uint32_t params[5] = {};
    int count = 0;
  };
  struct Upload {
    uint32_t handle = 0;
    uint64_t size = 0;
    bool sizeKnown = true;
    uint64_t written = 0;
    std::unique_ptr<qb::portable::IPortableDeviceDataStream> stream;
  };
  using Params = std::vector<uint32_t>;

  void Respond(uint16_t code, const Params& params = {});
  void SendData(const std::vector<uint8_t>& payload);
  // The simulated device has the write command now (its faults change).
  bool TakesWrites() const;
  void Run(const Command& c);
  void RunWithData(const Command& c, const std::vector<uint8_t>& data);
  uint16_t CodeOf(HRESULT hr) const;
  bool Ensure();

  // Device and storages.
  void GetDeviceInfo();
  void GetStorageIds();
  void GetStorageInfo(uint32_t storage);
  void GetDevicePropDesc(uint16_t prop);
  void GetDevicePropValue(uint16_t prop);
  void SetDevicePropValue(uint16_t prop, const std::vector<uint8_t>& data);
  std::vector<std::string> StorageIds();
  std::string StorageIdOf(uint32_t storage);
  // Objects.
  HRESULT Children(const std::string& parentId, std::vector<std::string>* ids);
  HRESULT Collect(uint32_t storage, uint32_t parent, bool recursive, std::vector<std::string>* ids);
  void GetObjectHandles(const Command& c, bool countOnly);
  void GetObjectInfo(uint32_t handle);
  void GetObjectPropsSupported();
  void GetObjectPropDesc(uint16_t prop, uint16_t format);
  void GetObjectPropValue(uint32_t handle, uint16_t prop);
  void SetObjectPropValue(uint32_t handle, uint16_t prop, const std::vector<uint8_t>& data);
  void GetObjPropList(const Command& c);
  void DeleteObject(uint32_t handle);
  void MoveObject(uint32_t handle, uint32_t storage, uint32_t parent);
  void CopyObject(uint32_t handle, uint32_t storage, uint32_t parent);
  HRESULT CopyTree(const std::string& id, const std::string& parentId, std::string* newId);
  std::string ParentIdOf(uint32_t storage, uint32_t parent);
  // Data.
  void GetObject(uint32_t handle, uint64_t offset, uint64_t maxBytes, bool partial, bool param64);
  void SendObjectInfo(uint32_t storage, uint32_t parent, const std::vector<uint8_t>& data);

  qb::portable::IPortableDevice* const device_;
  InQueue* const in_;
  std::shared_ptr<qb::portable::IPortableDeviceContent> content_;
  std::shared_ptr<qb::portable::IPortableDeviceProperties> props_;
  std::shared_ptr<qb::portable::IPortableDeviceResources> resources_;
  HandleTable handles_;

  std::recursive_mutex m_;
  bool sessionOpen_ = false;
  uint32_t sessionId_ = 0;
  Command current_;                  // the command whose data phase runs
  bool expectData_ = false;
  std::vector<uint8_t> data_;        // a dataset being received
  std::unique_ptr<Upload> upload_;   // SendObjectInfo done, SendObject to come
  bool uploadStreaming_ = false;
  HRESULT uploadResult_ = S_OK;
  // A read stream kept for the next partial read at the offset it reached.
  std::shared_ptr<qb::portable::IStream> readStream_;
  uint32_t readHandle_ = 0;
  uint64_t readOffset_ = 0;
  std::shared_ptr<HRESULT> readOutcome_;  // how the data of the last partial read went
  std::atomic<uint64_t> operations_{0};
  // Under m_.
  std::map<uint16_t, uint64_t> perOperation_;
  const std::string statsFile_;  // set once; empty: no stats file
  void CountLocked(uint16_t code);
};

}  // namespace qb::mtpemu

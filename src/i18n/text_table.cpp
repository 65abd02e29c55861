#include "i18n/text_table.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>

#include "diag/trace.h"
#include "i18n/builtin_texts.h"
#include "i18n/lang_file.h"
#include "i18n/lang_setting.h"

namespace qb::i18n {

LoadedTable::LoadedTable(const std::vector<int32_t>& ids, const std::vector<std::string>& texts)
    : plainIndex_(kLastPlainId + 1, 0) {
  const uint32_t n = static_cast<uint32_t>(std::min(ids.size(), texts.size()));
  size_t textBytes = 0;
  for (uint32_t i = 0; i < n; ++i) textBytes += texts[i].size() + 1;
  const size_t header = 4 + 8 * static_cast<size_t>(n);
  block_.resize(header + textBytes);
  auto put = [this](size_t at, uint32_t v) { std::memcpy(block_.data() + at, &v, 4); };
  put(0, n);
  size_t offset = header;
  for (uint32_t i = 0; i < n; ++i) {
    put(4 + 8 * i, static_cast<uint32_t>(ids[i]));
    put(8 + 8 * i, static_cast<uint32_t>(offset));
    std::memcpy(block_.data() + offset, texts[i].c_str(), texts[i].size() + 1);
    const int32_t id = ids[i];
    if (id >= kFirstPlainId && id <= kLastPlainId && plainIndex_[id] == 0)
      plainIndex_[id] = static_cast<uint32_t>(offset) + 1;
    offset += texts[i].size() + 1;
  }
}

uint32_t LoadedTable::ReadU32(size_t offset) const {
  uint32_t v;
  std::memcpy(&v, block_.data() + offset, 4);
  return v;
}

uint32_t LoadedTable::Count() const { return ReadU32(0); }

const char* LoadedTable::Find(int32_t id) const {
  auto text = [this](uint32_t offset) { return reinterpret_cast<const char*>(&block_[offset]); };
  if (id >= kFirstPlainId && id <= kLastPlainId)
    return plainIndex_[id] ? text(plainIndex_[id] - 1) : nullptr;
  const uint32_t n = Count();
  for (uint32_t i = 0; i < n; ++i) {
    if (static_cast<int32_t>(ReadU32(4 + 8 * i)) == id) return text(ReadU32(8 + 8 * i));
  }
  return nullptr;
}

}  // namespace qb::i18n

namespace {

constexpr size_t kLangInfoCapacity = 100;

struct Loaded {
  qb::i18n::LoadedTable table;
  std::string langId, langNative, langEnglish;
};

// Written only by I18N_InitFromFile and I18N_DeInit, which serialise on
// g_initMutex; readers load the pointer without a lock.
std::mutex g_initMutex;
std::atomic<const Loaded*> g_loaded{nullptr};

}  // namespace

bool I18N_Init() {
  const char* tag = "I1@I18N_Init: ";
  Trace(tag, "ENTER ");
  if (I18N_IsLoaded()) {
    Trace(tag, "RETURN[1]: RC=0x%08X (%s)", 1u, "already loaded");
    return true;
  }
  const std::filesystem::path file = qb::i18n::LanguageFileFromSettings();
  const bool loaded = I18N_InitFromFile(file);
  Trace(tag, "RETURN[2]: RC=0x%08X (%s)", loaded ? 1u : 0u, loaded ? "loaded" : "built-in");
  return loaded;
}

bool I18N_InitFromFile(const std::filesystem::path& file) {
  const char* tag = "I1@I18N_InitFromFile: ";
  Trace(tag, "ENTER \"%s\"", file.c_str());
  std::lock_guard lock(g_initMutex);
  if (g_loaded.load(std::memory_order_acquire)) {
    Trace(tag, "RETURN[1]: RC=0x%08X (%s)", 1u, "already loaded");
    return true;
  }
  if (file.empty()) {
    Trace(tag, "RETURN[2]: RC=0x%08X (%s)", 0u, "no language file set, built-in English texts");
    return false;
  }
  std::vector<int32_t> ids;
  std::vector<std::string> texts;
  std::string langId, langNative, langEnglish;
  if (!I18N_LoadFile(file, &ids, &texts, qb::i18n::kLanguageFileVersion, &langId,
                     kLangInfoCapacity, &langNative, kLangInfoCapacity, &langEnglish,
                     kLangInfoCapacity) ||
      ids.size() != texts.size()) {
    Trace(tag, "Language file \"%s\" refused (%s), using the built-in English texts",
          file.c_str(), I18N_LoadFileError().c_str());
    Trace(tag, "RETURN[3]: RC=0x%08X (%s)", 0u, "refused");
    return false;
  }
  Trace(tag, "strings=%d", static_cast<int>(ids.size()));
  g_loaded.store(new Loaded{qb::i18n::LoadedTable(ids, texts), langId, langNative, langEnglish},
                 std::memory_order_release);
  Trace(tag, "RETURN[4]: RC=0x%08X (%s)", 1u, "loaded");
  return true;
}

void I18N_DeInit() {
  const char* tag = "I2@I18N_DeInit: ";
  Trace(tag, "ENTER ");
  std::lock_guard lock(g_initMutex);
  delete g_loaded.exchange(nullptr, std::memory_order_acq_rel);  // balances new in I18N_InitFromFile
  Trace(tag, "LEAVE ");
}

bool I18N_IsLoaded() { return g_loaded.load(std::memory_order_acquire) != nullptr; }

int I18N_LoadedCount() {
  const Loaded* l = g_loaded.load(std::memory_order_acquire);
  return l ? static_cast<int>(l->table.Count()) : 0;
}

bool I18N_LoadedLanguage(std::string* sLangID, std::string* sLangNative,
                         std::string* sLangEnglish) {
  const Loaded* l = g_loaded.load(std::memory_order_acquire);
  if (!l) return false;
  if (sLangID) *sLangID = l->langId;
  if (sLangNative) *sLangNative = l->langNative;
  if (sLangEnglish) *sLangEnglish = l->langEnglish;
  return true;
}

const char* _GetI18NString(int nID) {
  const Loaded* l = g_loaded.load(std::memory_order_acquire);
  return l ? l->table.Find(nID) : nullptr;
}

// Typed values under text keys, kept in the JSON form in which they travel.
#ifndef NIRA_IPC_BUNDLE_INTERNAL_H
#define NIRA_IPC_BUNDLE_INTERNAL_H

#include <json/json.h>

#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "nira_ipc_log.h"

inline bool NiraIpcLogNull(const NiraIpcLogPlace& place) {
  if (NiraIpcLogWanted(NIRA_PLATFORM_LOG_ERROR)) {
    NiraIpcLogLine(NIRA_PLATFORM_LOG_ERROR, NIRA_IPC_TAG, place, "%s: %s(%d) > parameta is NULL");
  }
  return true;
}

// Whether `condition`, which says that an argument is null, holds: if so, one error line tells it.
#define NIRA_IPC_REFUSED(condition) ((condition) && NiraIpcLogNull({NiraIpcBaseName(__FILE__), __func__, __LINE__}))

// The content is one JSON value, usually an object, which holds a record {"type": tag, "value": v} under each key. It
// may have come over the wire and be anything: what is no record, or cannot be converted, reads as absent.
//
// Whatever a getter hands out is a malloc'ed block that lives as long as the container. The one exception is the text
// of a key, which goes when the key's next text takes its place.
//
// No lock: one thread at a time.
class CNiraIpcBundle {
 public:
  CNiraIpcBundle() = default;
  virtual ~CNiraIpcBundle();
  CNiraIpcBundle(const CNiraIpcBundle&) = delete;
  CNiraIpcBundle& operator=(const CNiraIpcBundle&) = delete;

  // A setter replaces the key's whole record. A null argument is logged and changes nothing.
  void SetParamInt(const char* key, int value);
  void SetParamString(const char* key, const char* value);
  void SetParamIntArray(const char* key, const int* values, unsigned int count);
  void SetParamStringArray(const char* key, const char* const* values, unsigned int count);
  void SetParamBinary(const char* key, const void* data, unsigned int size);

  // The second arguments of these two are ignored: absence always reads as -1 and null.
  int GetParamInt(const char* key, int fallback);
  char* GetParamString(const char* key, int fallback);

  // These two make a new array on each call.
  int* GetParamIntArray(const char* key, unsigned int* count);
  char** GetParamStringArray(const char* key, unsigned int* count);

  // Decodes once: the key's first kept block stays the answer, and `*size` is then left alone.
  void* GetParamBinary(const char* key, unsigned int* size);

  // Replaces the whole content.
  void SetJsonParam(Json::Value content);

  // {"bundle": content}
  Json::Value GetJson() const;

  // The text of that, for a request.
  std::string GetJsonText() const;

 protected:
  // For a container whose records are not the content itself but lie under `member` of it.
  explicit CNiraIpcBundle(const char* member) : m_Member(member) {}

  // The content, which becomes an empty object first if it is none.
  Json::Value& m_ContentAsObject();

  Json::Value m_Content;

 private:
  struct Free {
    void operator()(void* block) const { std::free(block); }
  };
  using Block = std::unique_ptr<void, Free>;

  // The blocks handed out for one key. A text or binary block comes first, the arrays' blocks follow in the order in
  // which they were made. The first is looked at whoever made it, but only a text may be released before the others.
  struct Kept {
    std::list<Block> blocks;
    bool beginsWithText = false;
  };

  static Block m_NewBlock(const void* bytes, size_t size);

  void m_SetRecord(const char* key, const char* type, Json::Value&& value);
  const Json::Value* m_FindRecords() const;
  const Json::Value* m_FindRecord(const char* key, const char* type) const;

  std::map<std::string, Kept> m_Kept;
  const char* const m_Member = nullptr;
};

#endif  // NIRA_IPC_BUNDLE_INTERNAL_H

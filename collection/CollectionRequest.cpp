#include "collection/CollectionRequest.h"

#include <algorithm>

#include "collection/PrintableText.h"
#include "platform/client/Constants.h"
#include "platform/message/MessageDict.h"

namespace collection {
namespace {

constexpr const char* kTextKeys[] = {kst::kKeyTraceAction, kst::kKeyTraceDumpStateReason,
                                     kst::kKeyBasebandResetReason, kst::kKeyBasebandResetType,
                                     kst::kKeyBasebandResetSubType};

bool hasRightTypes(const MessageDict& request) {
  const MessageValue* compress = request.find(kst::kKeyTraceDumpStatePerformCompression);
  return (compress == nullptr || compress->boolean() != nullptr) &&
         std::all_of(std::begin(kTextKeys), std::end(kTextKeys), [&](const char* key) {
           const MessageValue* value = request.find(key);
           return value == nullptr || value->text() != nullptr;
         });
}

std::string line(const MessageDict& request, const char* key) {
  return printable(request.text(key, kst::kUnknown));
}

}  // namespace

const char* actionOf(LogKind kind) {
  switch (kind) {
    case LogKind::kTelephony:
      return kst::kCollectTelephonyLogs;
    case LogKind::kTelephonyWithCoreDump:
      return kst::kCollectTelephonyLogsWithCoredump;
    case LogKind::kBaseband:
      return kst::kCollectBasebandLogs;
  }
  return kst::kUnknown;
}

std::optional<CollectionRequest> readCollectionRequest(const MessageDict& request) {
  if (!hasRightTypes(request)) {
    return {};
  }
  const std::string action = request.text(kst::kKeyTraceAction, "");
  for (const LogKind kind :
       {LogKind::kTelephony, LogKind::kTelephonyWithCoreDump, LogKind::kBaseband}) {
    if (action != actionOf(kind)) {
      continue;
    }
    const bool withCoreDump = kind == LogKind::kTelephonyWithCoreDump;
    return CollectionRequest{
        .kind = kind,
        .compress = request.boolean(kst::kKeyTraceDumpStatePerformCompression, true),
        .isIndicated = true,
        .reason = line(request,
                       withCoreDump ? kst::kKeyBasebandResetReason : kst::kKeyTraceDumpStateReason),
        .resetType = line(request, kst::kKeyBasebandResetType),
        .resetSubType = line(request, kst::kKeyBasebandResetSubType)};
  }
  return {};
}

}  // namespace collection

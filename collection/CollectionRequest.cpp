#include "collection/CollectionRequest.h"

#include "collection/PrintableText.h"
#include "platform/client/Constants.h"

namespace collection {
namespace {

std::string line(const MessageDict& request, const char* key) {
  return printable(request.text(key, kst::kUnknown));
}

}  // namespace

const char* actionOf(LogKind kind) {
  switch (kind) {
    case LogKind::kTelephony:
      return kst::kCollectTelephonyLogs;
    case LogKind::kTelephonyWithCoredump:
      return kst::kCollectTelephonyLogsWithCoredump;
    case LogKind::kBaseband:
      return kst::kCollectBasebandLogs;
  }
  return kst::kUnknown;
}

std::optional<CollectionRequest> readCollectionRequest(const MessageDict& request) {
  const std::string action = request.text(kst::kKeyTraceAction, "");
  for (const LogKind kind :
       {LogKind::kTelephony, LogKind::kTelephonyWithCoredump, LogKind::kBaseband}) {
    if (action != actionOf(kind)) {
      continue;
    }
    const bool withCoredump = kind == LogKind::kTelephonyWithCoredump;
    return CollectionRequest{
        .kind = kind,
        .compress = request.boolean(kst::kKeyTraceDumpStatePerformCompression, true),
        .reason = line(request,
                       withCoredump ? kst::kKeyBasebandResetReason : kst::kKeyTraceDumpStateReason),
        .resetType = line(request, kst::kKeyBasebandResetType),
        .resetSubType = line(request, kst::kKeyBasebandResetSubType)};
  }
  return {};
}

}  // namespace collection

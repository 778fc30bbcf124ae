#include "Data Transformers Internal/ZPIRegularExpressionTransformer.h"

#include <utility>
#include <vector>

#include "ZephalLogging.h"

ZPIRegularExpressionTransformerPtr ZPIRegularExpressionTransformer::initWithRegularExpression(
    ZPKRegexPtr regex) {
  return std::make_shared<ZPIRegularExpressionTransformer>(Key(), std::move(regex));
}

ZPIRegularExpressionTransformer::ZPIRegularExpressionTransformer(Key, ZPKRegexPtr regex)
    : _buffer(ZPKMutableData::data()), _regex(std::move(regex)) {}

void ZPIRegularExpressionTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  _buffer->appendGivingUp(data);
  const std::vector<ZPKRegexMatch> matches = _regex->allMatches(_buffer->view());
  if (matches.empty()) return;
  if (matches.size() > 1) {
    ZPKLoggingLog(ZPKLogGetAnchor(), 1,
                  "ZPIRegularExpressionTransformer: more than one match found, will use the last "
                  "match as the demarcation");
  }
  const ZPKRange last = matches.back().range();
  const size_t end = last.location + last.length;
  data->append(_buffer->bytes(), end);
  if (_buffer->length() > end) _buffer->dropFirst(end);
}

bool ZPIRegularExpressionTransformer::reset(ZPKErrorPtr* /*error*/) {
  _buffer->dropFirst(_buffer->length());
  return true;
}

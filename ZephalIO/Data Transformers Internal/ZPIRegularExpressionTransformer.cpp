#include "Data Transformers Internal/ZPIRegularExpressionTransformer.h"

#include <utility>

#include "ZephalLogging.h"

ZPIRegularExpressionTransformerPtr ZPIRegularExpressionTransformer::initWithRegularExpression(
    ZPKRegexPtr regex) {
  return std::make_shared<ZPIRegularExpressionTransformer>(Key(), std::move(regex));
}

ZPIRegularExpressionTransformer::ZPIRegularExpressionTransformer(Key, ZPKRegexPtr regex)
    : _buffer(ZPKMutableData::data()), _regex(std::move(regex)) {}

void ZPIRegularExpressionTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  if (data->length() > 0) {
    _buffer->appendGivingUp(data);
    _isSearched = false;
  }
  search();
  if (_matches == 0) return;
  if (_matches > 1) {
    ZPKLoggingLog(ZPKLogGetAnchor(), 1,
                  "ZPIRegularExpressionTransformer: more than one match found, will use the last "
                  "match as the demarcation");
  }
  data->append(_buffer->bytes(), _end);
  if (_end == 0 || _end == _buffer->length()) return;
  _buffer->dropFirst(_end);
  _isSearched = false;
}

void ZPIRegularExpressionTransformer::search() {
  if (_isSearched) return;
  _matches = ZPICountMatches(*_regex, _buffer->view(), &_end);
  _isSearched = true;
}

bool ZPIRegularExpressionTransformer::reset(ZPKErrorPtr* /*error*/) {
  _buffer->dropFirst(_buffer->length());
  _isSearched = false;
  return true;
}

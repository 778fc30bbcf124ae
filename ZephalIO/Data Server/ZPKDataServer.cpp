#include "Data Server/ZPKDataServer.h"

ZPKDataServer::~ZPKDataServer() = default;

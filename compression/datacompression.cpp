#include "compression/datacompression.h"

ZdataCompression::~ZdataCompression() = default;

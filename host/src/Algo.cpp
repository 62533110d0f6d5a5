#include "Algo.h"

Algo::~Algo() = default;

#pragma once

#include <Qel/RenderPasses/framework/ModelPrograms.h>

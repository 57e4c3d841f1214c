#include "interface/MasterLevelMeter.h"

namespace bw {

MasterLevelMeter::MasterLevelMeter(QWidget* parent) : SegmentedMeter(parent) {}

}  // namespace bw

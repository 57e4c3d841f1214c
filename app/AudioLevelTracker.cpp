#include "app/AudioLevelTracker.h"

namespace bw {

AudioLevelTracker& AudioLevelTracker::shared() {
    static auto* tracker = new AudioLevelTracker;  // lives until the process ends
    return *tracker;
}

LevelSubject* AudioLevelTracker::publisher(const std::string& id) {
    auto& subject = subjects_[id];
    if (!subject) {
        subject = std::make_unique<LevelSubject>();
    }
    return subject.get();
}

void AudioLevelTracker::update(Levels levels) {
    levelValues_ = std::move(levels);
    for (const auto& [id, level] : levelValues_) {
        if (auto subject = subjects_.find(id); subject != subjects_.end()) {
            subject->second->send(level);
        }
    }
}

void AudioLevelTracker::reset() {
    levelValues_.clear();
    for (const auto& [id, subject] : subjects_) {
        subject->send(0.0f);
    }
}

}  // namespace bw

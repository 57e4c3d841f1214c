#include "engine/QueuedFileWriter.h"

#include "engine/CopyOfBuffer.h"
#include "platform/base/Localization.h"

namespace bw {

QueuedFileWriter::QueuedFileWriter(std::unique_ptr<AudioFile> file, int maxPendingBuffers)
    : queue_(std::make_shared<SerialQueue>(kQueueLabel)),
      file_(std::move(file)),
      maxPendingBuffers_(maxPendingBuffers) {}

bool QueuedFileWriter::takeSlot(const FailureCallback& onFailure) {
    std::unique_lock guard(stateLock_);
    if (closed_) {
        return false;
    }
    if (pendingBuffers_ >= maxPendingBuffers_) {
        droppedBuffers_.fetch_add(1);
        if (reportedFailure_) {
            return false;
        }
        reportedFailure_ = true;
        guard.unlock();
        if (onFailure) {
            onFailure(localized("QueuedFileWriter",
                                "Recording stopped because writing could not keep up."));
        }
        return false;
    }
    ++pendingBuffers_;
    return true;
}

void QueuedFileWriter::write(const PCMBuffer& buffer, const FailureCallback& onFailure) {
    auto copy = copyOfBuffer(buffer);
    if (!copy) {
        report(localized("QueuedFileWriter", "Recording failed while preparing audio for writing."),
               onFailure);
        return;
    }
    write(std::move(copy), onFailure);
}

void QueuedFileWriter::write(std::shared_ptr<PCMBuffer> buffer, const FailureCallback& onFailure) {
    if (!buffer || !takeSlot(onFailure)) {
        return;
    }
    // The write keeps the writer alive: a buffer once accepted reaches the file even when the
    // owner lets go of the writer right after closing it.
    queue_->async([self = shared_from_this(), buffer = std::move(buffer), onFailure] {
        if (self->file_) {
            if (auto written = self->file_->write(*buffer); !written) {
                // A file full to its format's limit is no failure; its text tells why it ends.
                const AVError& error = written.error();
                self->report(error.code() == AudioFile::kSizeLimitReached
                                 ? error.localizedDescription()
                                 : localized("QueuedFileWriter",
                                             "Recording failed while writing the file.") +
                                       " " + error.localizedDescription(),
                             onFailure);
            } else {
                self->framesWritten_.fetch_add(buffer->frameLength());
            }
        }
        self->returnSlot();
    });
}

void QueuedFileWriter::close(std::function<void()> completion) {
    {
        std::lock_guard guard(stateLock_);
        closed_ = true;
    }
    // The job holds the writer: were the owner's last reference to go on another thread, the
    // file would be finishing there while this job already reported it complete.
    auto job = [self = shared_from_this(), completion = std::move(completion)] {
        self->file_.reset();
        if (completion) {
            completion();
        }
    };
    if (queue_->isCurrent()) {
        job();
    } else {
        queue_->async(std::move(job));
    }
}

void QueuedFileWriter::report(const std::string& message, const FailureCallback& onFailure) {
    {
        std::lock_guard guard(stateLock_);
        if (reportedFailure_) {
            return;
        }
        reportedFailure_ = true;
    }
    if (onFailure) {
        onFailure(message);
    }
}

void QueuedFileWriter::returnSlot() {
    std::lock_guard guard(stateLock_);
    if (pendingBuffers_ > 0) {
        --pendingBuffers_;
    }
}

}  // namespace bw

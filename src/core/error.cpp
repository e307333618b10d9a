#include "core/error.h"

#include <mutex>
#include <shared_mutex>

#include "core/checks.h"

namespace quillmere {

namespace {

class NoDiagnostics final : public DiagnosticProvider {
public:
    void capture(std::shared_ptr<DiagnosticContext>& out) override { out.reset(); }
};

// Never destroyed: exceptions are still thrown while the process ends.
struct ProviderSlot {
    std::shared_mutex mutex;  // shared by the exceptions under construction
    std::unique_ptr<DiagnosticProvider> provider = std::make_unique<NoDiagnostics>();
};

ProviderSlot& providerSlot() {
    static ProviderSlot& slot = *new ProviderSlot;
    return slot;
}

std::shared_ptr<DiagnosticContext> captureContext() {
    ProviderSlot& slot = providerSlot();
    std::shared_lock lock(slot.mutex);
    std::shared_ptr<DiagnosticContext> context;
    slot.provider->capture(context);
    return context;
}

}  // namespace

void setDiagnosticProvider(std::unique_ptr<DiagnosticProvider> provider) {
    if (!provider) provider = std::make_unique<NoDiagnostics>();
    ProviderSlot& slot = providerSlot();
    std::unique_lock lock(slot.mutex);
    slot.provider.swap(provider);
}

Exception::Exception(std::string message)
    : message_(std::move(message)), context_(captureContext()) {}

std::string Exception::contextText() const {
    return context_ ? context_->text() : std::string();
}

std::string joinPieces(std::initializer_list<TextPiece> pieces) {
    size_t size = 0;
    for (const TextPiece& piece : pieces) size += piece.view().size();
    std::string joined;
    joined.reserve(size);
    for (const TextPiece& piece : pieces) joined += piece.view();
    return joined;
}

void throwIllegalArgument(const char* text, int64_t number) {
    throwIllegalArgument(text, std::to_string(number));
}

void throwIllegalState(const char* text, int64_t number) {
    throwIllegalState(text, std::to_string(number));
}

void throwArgumentNull(const char* name, int line) {
    checks::failArgumentNull(name, line);
}

}  // namespace quillmere

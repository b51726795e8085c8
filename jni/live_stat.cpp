// Java binding, LiveStat: single items of the segment, chosen by the numbers of livestat.h. What
// fails raises java.io.IOException with a text in EUC-KR; the byte natives answer with codes only.
#include "halvo/livestat.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cstring>

#include "jni/native.h"
#include "print/documents.h"

#define HALVO_LIVESTAT_DEFINITION(name, value, meaning) const int32_t name = value;
HALVO_LIVESTAT_ITEMS(HALVO_LIVESTAT_DEFINITION)
#undef HALVO_LIVESTAT_DEFINITION

#define LIVESTAT_NATIVE(type, name)                                                                \
    extern "C" JNIEXPORT type JNICALL Java_com_morvesk_halvo_ipc_LiveStat_##name

using namespace halvo;

namespace {

constexpr char kNotAttached[] = "공유메모리 초기화 오류.";
constexpr char kAttachFailed[] = "공유메모리 초기화 실패.";
constexpr char kNoChannel[] = "채널 획득 실패.";
constexpr char kBadIndex[] = "메시지 인덱스 오류";
constexpr char kBadQueue[] = "큐번호  오류";
constexpr char kUnsupported[] = "지원되지 않는 인터페이스";

jint raise(JNIEnv *env, const char *message) {
    return JNU_ThrowByName(env, "java/io/IOException", message);
}

// ---- Counter records

// A per-type record: its table and index. Null tables mean that an exception was raised.
struct Record {
    halvo_counter *table = nullptr;
    jint index = 0;
    explicit operator bool() const { return table != nullptr; }
    halvo_counter &fields() const { return *counter_at(table, index); }
};

// The record of a channel, or of the segment when that is what the caller asked for. Kept: the
// index one past the table is accepted; what lies there belongs to the same header.
Record find_record(JNIEnv *env, bool of_segment, jint channel, jint index,
                   const char *without_segment) {
    if (index < 0 || index > HALVO_TYPES) {
        raise(env, kBadIndex);
        return {};
    }
    if (of_segment) {
        if (halvo_segment *segment = attached_segment()) return {segment->qtcnt, index};
        raise(env, without_segment);
        return {};
    }
    if (halvo_channel *q = checked_channel(channel)) return {q->tcnt, index};
    raise(env, kNoChannel);
    return {};
}

// Where the name of a record stands. Behind the segment's table there are 28 bytes left, which the
// record's numbers take: its name would be the head of a channel, so that record has none.
char *name_of(const Record &record) {
    const halvo_segment *segment = attached_segment();
    const bool outside = segment && record.table == segment->qtcnt && record.index == HALVO_TYPES;
    return outside ? nullptr : record.fields().tname;
}

// A fixed-size field, which may lack its terminator, as a Java string.
jstring field_string(JNIEnv *env, const char *field) {
    char text[HALVO_NAME_SIZE + 1] = {};
    if (field) std::memcpy(text, field, HALVO_NAME_SIZE);
    return env->NewStringUTF(text);
}

// ---- Items

struct NumberItem {
    int32_t get, set;
    halvo_i32 halvo_counter::*field;
};
constexpr NumberItem kNumbers[] = {
    {IID_GETI_TRATIO, IID_SETI_TRATIO, &halvo_counter::ratio},
    {IID_GETI_TSTART, IID_SETI_TSTART, &halvo_counter::tstart},
    {IID_GETI_TINTERVAL, IID_SETI_TINTERVAL, &halvo_counter::tinterval},
};

const NumberItem *number_item(int32_t NumberItem::*id, jint iid) {
    const auto found = std::find_if(std::begin(kNumbers), std::end(kNumbers),
                                    [=](const NumberItem &item) { return item.*id == iid; });
    return found != std::end(kNumbers) ? found : nullptr;
}

struct Constant {
    int32_t iid;
    jint value;
};
constexpr Constant kConstants[] = {
    {IID_GETI_QMAPSZ, sizeof(halvo_segment)},
    {IID_GETI_QSTATSZ, sizeof(halvo_channel)},
    {IID_GETI_COUNTERSZ, sizeof(halvo_counter)},
    {IID_GETI_TMAX, HALVO_TYPES},
};

jint channel_total(JNIEnv *env) {
    if (const halvo_segment *segment = attached_segment())
        return static_cast<jint>(segment->nchnnl);
    raise(env, kNotAttached);
    return ESMS_FAILED;
}

// What getBytes copies: the segment's own bytes, or the code to return.
struct Image {
    jint fault;
    const void *bytes = nullptr;
    uint32_t size = 0;
};

// Kept: here the index of a counter ends with the table.
Image image_of(halvo_segment *segment, jint channel, jint iid, jint index) {
    if (iid == IID_GETB_QMAP) return {ESMS_OK, segment, sizeof *segment};
    halvo_channel *q = checked_channel(channel);
    if (iid == IID_GETB_QSTAT) return q ? Image{ESMS_OK, q, sizeof *q} : Image{ESMS_INVAL};
    if (iid != IID_GETB_COUNTER) return {ESMS_FAILED};
    if (index < 0 || index >= HALVO_TYPES || (!q && channel >= 0)) return {ESMS_INVAL};
    return {ESMS_OK, counter_at(q ? q->tcnt : segment->qtcnt, index), sizeof(halvo_counter)};
}

jstring queue_name(JNIEnv *env, jint channel) {
    const halvo_channel *q = checked_channel(channel);
    if (q) return field_string(env, q->qname);
    raise(env, attached_segment() ? kBadQueue : kAttachFailed);
    return nullptr;
}

jstring node_name(JNIEnv *env) {
    utsname host{};
    uname(&host);
    return env->NewStringUTF(host.nodename);
}

jstring status_document(JNIEnv *env) {
    Text document;
    json_document(document);
    if (document.complete()) return env->NewStringUTF(document.c_str());
    JNU_ThrowByName(env, "java/lang/OutOfMemoryError", "status document");
    return nullptr;
}

} // namespace

LIVESTAT_NATIVE(jint, getInt)(JNIEnv *env, jclass, jint channel, jint iid, jint index) noexcept {
    if (iid == IID_GETI_QCOUNT) return channel_total(env);
    for (const Constant &constant : kConstants)
        if (iid == constant.iid) return constant.value;
    const NumberItem *item = number_item(&NumberItem::get, iid);
    if (!item) {
        raise(env, kUnsupported);
        return ESMS_FAILED;
    }
    const bool of_segment = channel < 0;
    const Record record = find_record(env, of_segment, channel, index, kAttachFailed);
    if (!record) return -1;
    // Kept: the segment's intervals can be set and read as 0.
    if (of_segment && iid == IID_GETI_TINTERVAL) return 0;
    return load(record.fields().*item->field);
}

LIVESTAT_NATIVE(jint, setInt)
(JNIEnv *env, jclass, jint channel, jint iid, jint index, jint value) noexcept {
    const NumberItem *item = number_item(&NumberItem::set, iid);
    if (!item) return raise(env, kUnsupported);
    const Record record = find_record(env, channel < 0, channel, index, kAttachFailed);
    if (!record) return JNI_OK; // the exception is what the caller sees
    store(record.fields().*item->field, value);
    return value;
}

LIVESTAT_NATIVE(jlong, getLong)(JNIEnv *env, jclass, jint channel, jint iid) noexcept {
    const halvo_channel *q = checked_channel(channel);
    if (iid == IID_GETL_ECOUNT && q) return static_cast<jlong>(q->gcnt.ecount);
    raise(env, iid == IID_GETL_ECOUNT ? kNotAttached : kUnsupported);
    return ESMS_FAILED;
}

// Kept: accepted for the sake of its callers, without effect.
LIVESTAT_NATIVE(void, setLong)(JNIEnv *, jclass, jint, jint, jint, jlong) noexcept {}

// Kept: in the two string natives channel 0 counts as no channel.
LIVESTAT_NATIVE(jstring, getString)
(JNIEnv *env, jclass, jint channel, jint iid, jint index) noexcept {
    if (iid == IID_GETS_TNAME) {
        const Record record = find_record(env, channel <= 0, channel, index, kAttachFailed);
        return record ? field_string(env, name_of(record)) : nullptr;
    }
    if (iid == IID_GETS_QNAME) return queue_name(env, channel);
    if (iid == IID_GETS_UNAME) return node_name(env);
    if (iid == IID_GETS_SMSQM) return status_document(env);
    raise(env, kUnsupported);
    return nullptr;
}

LIVESTAT_NATIVE(void, setString)
(JNIEnv *env, jclass, jint channel, jint iid, jint index, jstring value) noexcept {
    const StringChars text(env, value);
    if (!text) return;
    if (iid != IID_SETS_TNAME) {
        raise(env, kUnsupported);
        return;
    }
    const Record record = find_record(env, channel <= 0, channel, index, kNoChannel);
    char *name = record ? name_of(record) : nullptr;
    if (!name) return;
    std::memset(name, 0, HALVO_NAME_SIZE);
    std::memcpy(name, text.get(), strnlen(text.get(), HALVO_NAME_SIZE - 1));
}

// Kept: bytes cannot be set; the answer only says whether a segment is attached.
LIVESTAT_NATIVE(jint, setBytes)
(JNIEnv *, jclass, jint, jint, jint, jbyteArray, jint, jint) noexcept {
    return attached_segment() ? ESMS_OK : ESMS_NOINIT;
}

LIVESTAT_NATIVE(jint, getBytes)
(JNIEnv *env, jclass, jint channel, jint iid, jint index, jbyteArray buffer, jint offset,
 jint length) noexcept {
    const ArrayRange range{buffer, offset, length};
    if (!can_receive(env, range)) return ESMS_INVAL;
    halvo_segment *segment = attached_segment();
    if (!segment) return ESMS_NOINIT;
    const Image image = image_of(segment, channel, iid, index);
    if (image.fault == ESMS_OK) copy_out(env, range, image.bytes, image.size);
    return image.fault;
}

// String dictionary behind the INI reader: three parallel arrays (value, key,
// hash) scanned linearly, doubled when full. Nothing here throws.
#include "ini_dict.h"

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kMinCapacity = 128;

// Copies at most INI_DICT_STATIC_MAX characters of s into buf and terminates it.
size_t copy_cut(char* buf, const char* s) {
    size_t len = strnlen(s, INI_DICT_STATIC_MAX);
    memcpy(buf, s, len);
    buf[len] = '\0';
    return len;
}

int find_index(const ini_dict* d, const char* key, uint32_t h) {
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] != nullptr && d->hash[i] == h && strcmp(d->key[i], key) == 0) return i;
    }
    return -1;
}

// Doubles all three arrays. Each array is swapped in as soon as it has grown,
// so a failure part-way leaves some arrays longer than size: harmless, since
// only the first size slots are ever used and the extra slots are zero.
bool grow(ini_dict* d) {
    if (d->size > INT_MAX / 2) return false;
    const size_t count = static_cast<size_t>(d->size);
    void* v = mem_double(d->val, count * sizeof(char*));
    if (v == nullptr) return false;
    d->val = static_cast<char**>(v);
    void* k = mem_double(d->key, count * sizeof(char*));
    if (k == nullptr) return false;
    d->key = static_cast<char**>(k);
    void* h = mem_double(d->hash, count * sizeof(uint32_t));
    if (h == nullptr) return false;
    d->hash = static_cast<uint32_t*>(h);
    d->size *= 2;
    return true;
}

}  // namespace

extern "C" {

uint32_t ini_dict_hash(const char* key) {
    if (key == nullptr) return 0;
    uint32_t h = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(key); *p != 0; ++p) {
        h += *p;
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

ini_dict* ini_dict_new(int size) {
    if (size < kMinCapacity) size = kMinCapacity;
    const size_t count = static_cast<size_t>(size);
    auto* d = static_cast<ini_dict*>(calloc(1, sizeof(ini_dict)));
    if (d == nullptr) return nullptr;
    d->size = size;
    d->val = static_cast<char**>(calloc(count, sizeof(char*)));
    d->key = static_cast<char**>(calloc(count, sizeof(char*)));
    d->hash = static_cast<uint32_t*>(calloc(count, sizeof(uint32_t)));
    if (d->val == nullptr || d->key == nullptr || d->hash == nullptr) {
        free(d->val);
        free(d->key);
        free(d->hash);
        free(d);
        return nullptr;
    }
    return d;
}

void ini_dict_del(ini_dict* d) {
    if (d == nullptr) return;
    for (int i = 0; i < d->size; ++i) {
        free(d->key[i]);
        free(d->val[i]);
    }
    free(d->val);
    free(d->key);
    free(d->hash);
    free(d);
}

const char* ini_dict_get(const ini_dict* d, const char* key, const char* def) {
    if (d == nullptr || key == nullptr) return def;
    const int i = find_index(d, key, ini_dict_hash(key));
    return i < 0 ? def : d->val[i];
}

int ini_dict_set(ini_dict* d, const char* key, const char* val) {
    if (d == nullptr || key == nullptr) return -1;
    const uint32_t h = ini_dict_hash(key);

    int free_slot = -1;
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] == nullptr) {
            if (free_slot < 0) free_slot = i;
        } else if (d->hash[i] == h && strcmp(d->key[i], key) == 0) {
            char* copy = nullptr;
            if (val != nullptr && (copy = xstrdup(val)) == nullptr) return -1;
            free(d->val[i]);
            d->val[i] = copy;
            return 0;
        }
    }

    char* key_copy = xstrdup(key);
    char* val_copy = val != nullptr ? xstrdup(val) : nullptr;
    if (key_copy == nullptr || (val != nullptr && val_copy == nullptr)) {
        free(key_copy);
        free(val_copy);
        return -1;
    }
    if (d->n >= d->size || free_slot < 0) {
        const int old_size = d->size;
        if (!grow(d)) {
            free(key_copy);
            free(val_copy);
            return -1;
        }
        free_slot = old_size;
    }
    d->key[free_slot] = key_copy;
    d->val[free_slot] = val_copy;
    d->hash[free_slot] = h;
    d->n++;
    return 0;
}

void ini_dict_unset(ini_dict* d, const char* key) {
    if (d == nullptr || key == nullptr) return;
    const int i = find_index(d, key, ini_dict_hash(key));
    if (i < 0) return;
    free(d->key[i]);
    free(d->val[i]);
    d->key[i] = nullptr;
    d->val[i] = nullptr;
    d->hash[i] = 0;
    d->n--;
}

void ini_dict_dump(const ini_dict* d, FILE* out) {
    if (d == nullptr || out == nullptr) return;
    if (d->n < 1) {
        fprintf(out, "empty dictionary\n");
        return;
    }
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] == nullptr) continue;
        fprintf(out, "%20s\t[%s]\n", d->key[i], d->val[i] != nullptr ? d->val[i] : "UNDEF");
    }
}

void* mem_double(void* ptr, size_t size) {
    if (size > SIZE_MAX / 2) return nullptr;
    void* block = calloc(2 * size != 0 ? 2 * size : 1, 1);
    if (block == nullptr) return nullptr;
    if (ptr != nullptr && size != 0) memcpy(block, ptr, size);
    free(ptr);
    return block;
}

char* xstrdup(const char* s) {
    if (s == nullptr) return nullptr;
    const size_t len = strlen(s) + 1;
    auto* copy = static_cast<char*>(malloc(len));
    if (copy != nullptr) memcpy(copy, s, len);
    return copy;
}

char* strlwc(const char* s) {
    static char buf[INI_DICT_STATIC_MAX + 1];
    if (s == nullptr) return nullptr;
    const size_t len = copy_cut(buf, s);
    for (size_t i = 0; i < len; ++i) {
        buf[i] = static_cast<char>(tolower(static_cast<unsigned char>(buf[i])));
    }
    return buf;
}

char* strstrip(const char* s) {
    static char buf[INI_DICT_STATIC_MAX + 1];
    if (s == nullptr) return nullptr;
    while (*s != '\0' && isspace(static_cast<unsigned char>(*s))) ++s;
    size_t len = copy_cut(buf, s);
    while (len > 0 && isspace(static_cast<unsigned char>(buf[len - 1]))) buf[--len] = '\0';
    return buf;
}

}  // extern "C"

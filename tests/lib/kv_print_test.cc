// Proves the text forms: real JSON and XML parsers must read them back, and a few goldens pin the
// layout byte by byte.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include "lib/kv.h"
#include "lib/plat.h"

namespace {

std::string printed(void (*print)(qz_stream*, int, const propset*), int level, const propset* set) {
    const stream_ptr stream(new_qz_stream(0));
    print(stream.get(), level, set);
    return {reinterpret_cast<char*>(stream->data), stream->length};
}

void add_number(propset* set, const char* name, std::int32_t number) {
    ASSERT_EQ(ps_add(set, new_kv(name, 0, KV_INT32, 4, &number)), 0);
}

propset_ptr sample() {
    propset_ptr set(new_ps(0));
    const unsigned char guid[16] = {0x67, 0x45, 0x23, 0x01, 0xab, 0x89, 0xef, 0xcd,
                                    1,    2,    3,    4,    5,    6,    7,    8};
    const std::uint8_t yes = 1;
    const std::uint64_t big = ~std::uint64_t{0};
    const std::int64_t low = INT64_MIN;
    const char16_t wide[] = u"\u00fc\u20ac\U0001f600\xd800!";
    add_number(set.get(), "i32", -5);
    EXPECT_EQ(ps_add(set.get(), new_kv("bool", 0, KV_BOOLEAN, 1, &yes)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("u64", 0, KV_UINT64, 8, &big)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("i64", 0, KV_INT64, 8, &low)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("time", 0, KV_TIME, 8, &big)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("str", 0, KV_STRING, 10, "a\"<b> & c")), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("wstr", 0, KV_WSTRING, sizeof wide, wide)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("bin", 0, KV_BINARY, 4, "\0\xff\x10z")), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("guid", 0, KV_GUID, 16, guid)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("wire", 0, KV_STRING | KV_WIRE, 5, "\0\0\0\1a")), 0);
    val_array* array = new_val_array(0, KV_INT32);
    for (std::int32_t i : {1, 2}) {
        EXPECT_EQ(val_array_add(array, new_value(KV_INT32, 4, &i)), 0);
    }
    EXPECT_EQ(ps_add(set.get(), new_kv_assign(qzstrdup("arr"), 0, KV_INT32 | KV_ARRAY, 4, array)),
              0);
    const propset_ptr inner(new_ps(0));
    add_number(inner.get(), "n", 1);
    EXPECT_EQ(ps_add(set.get(), new_kv("obj", 0, KV_OBJECT, 4, inner.get())), 0);
    const propset_ptr empty(new_ps(0));
    EXPECT_EQ(ps_add(set.get(), new_kv("none", 0, KV_I18N, 4, empty.get())), 0);
    return set;
}

// Runs a Python program with the text in its variable `text`; the exit status.
int run_python(const std::string& text, const std::string& program) {
    const std::string path = testing::TempDir() + "text_form.input";
    std::ofstream(path, std::ios::binary) << text;
    const std::string script = testing::TempDir() + "text_form.py";
    std::ofstream(script) << "text = open('" << path << "', encoding='utf-8').read()\n" << program;
    const int status = std::system((std::string(DOVMAD_PYTHON) + " " + script).c_str());
    std::remove(path.c_str());
    std::remove(script.c_str());
    return status;
}

TEST(json_text, is_read_by_a_json_parser) {
    EXPECT_EQ(run_python(printed(ps_printjson, 0, sample().get()), R"(
import json
assert json.loads(text) == {
    "arr": [1, 2], "bin": "AP8Qeg==", "bool": "True", "guid":
    "{01234567-89ab-cdef-0102-030405060708}", "i32": -5, "i64": -2**63, "none": {},
    "obj": {"n": 1}, "str": "a'<b> & c", "time": 2**64 - 1, "u64": 2**64 - 1,
    "wire": None, "wstr": "\u00fc\u20ac\U0001f600\ufffd!"}, json.loads(text)
)"),
              0);
}

TEST(xml_text, is_read_by_an_xml_parser) {
    const std::string text = printed(ps_print, 0, sample().get());
    EXPECT_EQ(run_python("<r>" + text + "</r>", R"(
import xml.etree.ElementTree as tree
entries = {e.find('name').text: e.find('value') for e in tree.fromstring(text).findall('kv')}
assert len(entries) == 13
def data(name):
    found = entries[name].findall('data')
    return found[0].get('datatype'), found[0].text
assert data('i32') == ('int32', ' -5')
assert data('bool') == ('boolean', ' True')
assert data('i64') == ('int64', ' %d' % -2**63)
assert data('time') == ('time', ' %d' % (2**64 - 1))
assert data('str') == ('string', ' a"<b> & c')
assert data('wstr') == ('wstring', ' \u00fc\u20ac\U0001f600\ufffd!')
assert data('bin') == ('binary', 'AP8Qeg==')
assert data('guid') == ('guid', ' {01234567-89ab-cdef-0102-030405060708}')
array = entries['arr'].find('array')
assert array.get('datatype') == 'int32'
assert [e.find('data').text for e in array.findall('value')] == [' 1', ' 2']
assert entries['obj'].find('data').find('kv').find('name').text == 'n'
assert len(entries['wire']) == 0
)"),
              0);
}

TEST(json_text, layout) {
    const propset_ptr set(new_ps(0));
    EXPECT_EQ(printed(ps_printjson, 0, set.get()), "  {\n}");
    add_number(set.get(), "a", 5);
    EXPECT_EQ(printed(ps_printjson, 0, set.get()), "  {\n    \"a\" :     5\n}");
    val_array* array = new_val_array(0, KV_INT32);
    const std::int32_t one = 1;
    EXPECT_EQ(val_array_add(array, new_value(KV_INT32, 4, &one)), 0);
    EXPECT_EQ(val_array_add(array, new_value(KV_INT32, 4, &one)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv_assign(qzstrdup("b"), 0, KV_INT32 | KV_ARRAY, 4, array)), 0);
    EXPECT_EQ(printed(ps_printjson, 1, set.get()),
              "    {\n      \"a\" :       5,\n      \"b\" :       [\n        1,\n        1\n"
              "      ]\n  }");
}

TEST(xml_text, layout) {
    const propset_ptr set(new_ps(0));
    const propset_ptr inner(new_ps(0));
    add_number(inner.get(), "a&b", 5);
    EXPECT_EQ(ps_add(set.get(), new_kv("s", 0, KV_PROPERTY_SET, 4, inner.get())), 0);
    EXPECT_EQ(printed(ps_print, 1, set.get()),
              "  <kv>\n"
              "    <name>s</name>\n"
              "    <value>\n"
              "      <data datatype=\"property_set\">\n"
              "        <kv>\n"
              "          <name>a&amp;b</name>\n"
              "          <value>\n"
              "            <data datatype=\"int32\"> 5</data>\n"
              "          </value>\n"
              "        </kv>\n"
              "      </data>\n"
              "    </value>\n"
              "  </kv>\n");
}

TEST(printing, leaves_the_set_as_it_is) {
    const propset_ptr set = sample();
    const propset_ptr before(ps_copy(set.get()));
    (void)printed(ps_printjson, 0, set.get());
    (void)printed(ps_print, 0, set.get());
    EXPECT_EQ(ps_compare(set.get(), before.get()), 1);
}

TEST(dumps, frame_the_text_with_rules) {
    const propset_ptr set(new_ps(0));
    add_number(set.get(), "a", 5);
    testing::internal::CaptureStderr();
    display_propset(set.get(), "title");
    display_propset_json(set.get(), "%s");
    display_propset(nullptr, "title");
    const std::string rule(41, '-');
    const std::string end = std::string(15, '-') + " END " + std::string(21, '-');
    const auto frame = [&](const std::string& name, const std::string& title,
                           const std::string& body) {
        const std::string prefix = "hobintf: " + name + ": ";
        return prefix + rule + "\n" + prefix + title + "\n" + prefix + rule + "\n" + body + prefix +
               end + "\n";
    };
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              frame("display_propset", "title", printed(ps_print, 4, set.get())) +
                  frame("display_propset_json", "%s", printed(ps_printjson, 0, set.get())));
}

TEST(dumps, write_json_behind_what_the_file_holds) {
    const propset_ptr set(new_ps(0));
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::tmpfile(), std::fclose);
    std::fputs("before", file.get());
    ps_print_to_jsonfile(set.get(), 0, file.get());
    ps_print_to_jsonfile(nullptr, 0, file.get());
    std::rewind(file.get());
    char text[32] = {};
    EXPECT_EQ(std::fread(text, 1, sizeof text, file.get()), std::strlen("before  {\n}"));
    EXPECT_STREQ(text, "before  {\n}");
}

}  // namespace

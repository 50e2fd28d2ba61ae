#include "filtering/filter_lines.h"

#include "library/blocks.h"
#include "library/guid_text.h"
#include "library/text.h"

#include <cstring>

namespace ruvo::winehost {

namespace {

const wchar_t *orEmpty(const wchar_t *text)
{
    return text ? text : L"";
}

std::string valueText(const FWP_CONDITION_VALUE0 &value)
{
    switch (value.type) {
    case FWP_EMPTY: return "";
    case FWP_UINT8: return std::to_string(value.uint8);
    case FWP_UINT16: return std::to_string(value.uint16);
    case FWP_UINT32: return std::to_string(value.uint32);
    case FWP_BYTE_BLOB_TYPE: return toUtf8(appIdText(value.byteBlob));
    default: return "?";
    }
}

std::string conditionText(const FWPM_FILTER_CONDITION0 &condition)
{
    const FilterField *field = findField(condition.fieldKey);
    return (field ? field->name : guidText(condition.fieldKey)) + ' ' + nameOfMatch(condition.matchType) + ' '
           + nameOfType(condition.conditionValue.type) + ' ' + valueText(condition.conditionValue);
}

std::string weightText(const FWP_VALUE0 &weight)
{
    switch (weight.type) {
    case FWP_UINT8: return std::to_string(weight.uint8);
    case FWP_UINT16: return std::to_string(weight.uint16);
    case FWP_UINT32: return std::to_string(weight.uint32);
    case FWP_UINT64: return weight.uint64 ? std::to_string(*weight.uint64) : "null";
    default: return "null";
    }
}

JsonLine conditionMember(const FWPM_FILTER_CONDITION0 &condition)
{
    const FWP_CONDITION_VALUE0 &value = condition.conditionValue;
    JsonLine line;
    line.add("field", findField(condition.fieldKey)->engineName);
    if (value.type == FWP_BYTE_BLOB_TYPE)
        line.add("value", std::wstring_view(appIdText(value.byteBlob)));
    else
        line.addRaw("value", valueText(value));
    return line;
}

/// Puts a filter and all that it points to into one block.
class FilterBlock
{
public:
    FilterBlock(std::size_t size, unsigned long &number)
        : m_filter(static_cast<FWPM_FILTER0 *>(allocateBlock(sizeof(FWPM_FILTER0) + size, number)))
        , m_next(reinterpret_cast<char *>(m_filter + 1))
    {}

    FWPM_FILTER0 *filter() const { return m_filter; }

    template<typename T>
    T *take(std::size_t count)
    {
        T *taken = reinterpret_cast<T *>(m_next);
        m_next += alignedSize(count * sizeof(T));
        return taken;
    }

    wchar_t *text(const std::wstring &text)
    {
        auto *taken = take<wchar_t>(text.size() + 1);
        std::memcpy(taken, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
        return taken;
    }

    static std::size_t alignedSize(std::size_t size) { return (size + 7) & ~std::size_t{7}; }
    static std::size_t textSize(const std::string &text)
    {
        return alignedSize((text.size() + 1) * sizeof(wchar_t)); // UTF-8 has at least as many units
    }

private:
    FWPM_FILTER0 *m_filter;
    char *m_next;
};

void copyCondition(FilterBlock &block, const JsonValue &from, FWPM_FILTER_CONDITION0 &to)
{
    const FilterField *field = findField(from["field"].text);
    if (!field)
        return;
    to.fieldKey = field->key;
    to.matchType = FWP_MATCH_EQUAL;
    FWP_CONDITION_VALUE0 &value = to.conditionValue;
    value.type = field->type;
    if (field->type == FWP_UINT16) {
        value.uint16 = static_cast<UINT16>(from["value"].number);
    } else if (field->type == FWP_UINT32) {
        value.uint32 = static_cast<UINT32>(from["value"].number);
    } else {
        const std::wstring text = toWide(from["value"].text);
        value.byteBlob = block.take<FWP_BYTE_BLOB>(1);
        value.byteBlob->data = reinterpret_cast<UINT8 *>(block.text(text));
        value.byteBlob->size = static_cast<UINT32>((text.size() + 1) * sizeof(wchar_t));
    }
}

} // namespace

void describeFilter(JsonLine &line, const FWPM_FILTER0 &filter)
{
    const FilterLayer *layer = findLayer(filter.layerKey);
    std::vector<std::string> conditions;
    for (UINT32 i = 0; filter.filterCondition && i < filter.numFilterConditions; ++i)
        conditions.push_back(conditionText(filter.filterCondition[i]));
    line.add("name", filter.displayData.name)
        .add("description", filter.displayData.description)
        .add("layer", std::string_view(layer ? layer->name : guidText(filter.layerKey)))
        .add("sublayer", std::string_view(guidText(filter.subLayerKey)))
        .add("flags", filter.flags)
        .addRaw("weight", weightText(filter.weight))
        .add("weight-type", std::string_view(nameOfType(filter.weight.type)))
        .add("action", std::string_view(nameOfAction(filter.action.type)))
        .add("conditions", std::vector<std::string_view>(conditions.begin(), conditions.end()));
}

JsonLine questionOf(const FWPM_FILTER0 &filter)
{
    std::string conditions = "[";
    for (UINT32 i = 0; i < filter.numFilterConditions; ++i) {
        conditions += i > 0 ? "," : "";
        conditions += conditionMember(filter.filterCondition[i]).text();
    }
    JsonLine line;
    line.add("call", "filter-add")
        .add("layer", findLayer(filter.layerKey)->engineName)
        .add("sublayer", std::string_view(guidText(filter.subLayerKey)))
        .add("name", orEmpty(filter.displayData.name))
        .add("description", orEmpty(filter.displayData.description))
        .add("flags", filter.flags)
        .add("weight", filter.weight.uint8)
        .add("action", filter.action.type == FWP_ACTION_BLOCK ? "block" : "permit")
        .addRaw("conditions", conditions + ']');
    return line;
}

FWPM_FILTER0 *copyFilter(const JsonValue &answer, unsigned long &blockNumber)
{
    const FilterLayer *layer = findLayer(answer["layer"].text);
    const auto sublayer = parseGuid(answer["sublayer"].text);
    const std::vector<JsonValue> &conditions = answer["conditions"].elements;
    if (!layer || !sublayer)
        return nullptr;
    std::size_t size = FilterBlock::textSize(answer["name"].text) + FilterBlock::textSize(answer["description"].text);
    for (const JsonValue &condition : conditions) {
        size += FilterBlock::alignedSize(sizeof(FWPM_FILTER_CONDITION0)) + sizeof(FWP_BYTE_BLOB)
                + FilterBlock::textSize(condition["value"].text);
    }
    FilterBlock block(size, blockNumber);
    FWPM_FILTER0 &filter = *block.filter();
    filter.displayData.name = block.text(toWide(answer["name"].text));
    filter.displayData.description = block.text(toWide(answer["description"].text));
    filter.flags = static_cast<UINT32>(answer["flags"].number);
    filter.layerKey = layer->key;
    filter.subLayerKey = *sublayer;
    filter.weight.type = FWP_UINT8;
    filter.weight.uint8 = static_cast<UINT8>(answer["weight"].number);
    filter.numFilterConditions = static_cast<UINT32>(conditions.size());
    filter.filterCondition = block.take<FWPM_FILTER_CONDITION0>(conditions.size());
    for (std::size_t i = 0; i < conditions.size(); ++i)
        copyCondition(block, conditions[i], filter.filterCondition[i]);
    filter.action.type = answer["action"].text == "block" ? FWP_ACTION_BLOCK : FWP_ACTION_PERMIT;
    filter.filterId = static_cast<UINT64>(answer["id"].number);
    return &filter;
}

} // namespace ruvo::winehost

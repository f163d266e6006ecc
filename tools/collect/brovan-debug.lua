-- Wireshark dissector for the debug messages of the gateway's services (UDP port 5344).
--
-- Put it into Wireshark's folder of personal Lua plug-ins (Help, About, Folders), or load it once:
--     wireshark -X lua_script:brovan-debug.lua capture.pcap
-- Display filters: brovan_debug.module == 4 && brovan_debug.level <= 3, brovan_debug.text contains
-- "lan", brovan_debug.malformed.

local HEAD = 10    -- bytes before the text
local ELEMENT = 6  -- where the element of tag, length and text begins

local debug_message = Proto("brovan_debug", "Gateway Debug Message")

local fields = {
    category = ProtoField.uint8("brovan_debug.category", "Category", base.DEC),
    level = ProtoField.uint8("brovan_debug.level", "Level", base.DEC),
    module = ProtoField.uint16("brovan_debug.module", "Module", base.DEC),
    total = ProtoField.uint16("brovan_debug.length", "Total length", base.DEC),
    tag = ProtoField.uint16("brovan_debug.tag", "Source tag", base.HEX),
    element = ProtoField.uint16("brovan_debug.element_length", "Element length", base.DEC),
    text = ProtoField.string("brovan_debug.text", "Text", base.UNICODE),
}
debug_message.fields = fields

local malformed = ProtoExpert.new("brovan_debug.malformed", "Malformed debug message",
                                  expert.group.MALFORMED, expert.severity.ERROR)
debug_message.experts = { malformed }

debug_message.prefs.port = Pref.uint("UDP port", 5344, "Port that the collector listens on")

local function complain(item, pinfo, what)
    item:add_proto_expert_info(malformed, what)
    pinfo.cols.info = "Malformed: " .. what
end

function debug_message.dissector(buffer, pinfo, tree)
    local size = buffer:len()
    local item = tree:add(debug_message, buffer())
    pinfo.cols.protocol = "BVDEBUG"
    if size < HEAD then
        complain(item, pinfo, "shorter than its header")
        return size
    end

    local category, level = buffer(0, 1), buffer(1, 1)
    local module, total = buffer(2, 2), buffer(4, 2)
    local tag, element = buffer(6, 2), buffer(8, 2)
    item:add(fields.category, category)
    item:add(fields.level, level)
    item:add(fields.module, module)
    item:add(fields.total, total)
    item:add(fields.tag, tag)
    item:add(fields.element, element)

    local text = ""
    if size > HEAD then
        text = buffer(HEAD):string(ENC_UTF_8)
        item:add_packet_field(fields.text, buffer(HEAD), ENC_UTF_8)
    end
    pinfo.cols.info = string.format("module %u level %u tag 0x%04x: %s", module:uint(),
                                    level:uint(), tag:uint(), text)
    item:append_text(string.format(", module %u, level %u", module:uint(), level:uint()))

    if category:uint() > 31 then
        complain(item, pinfo, "a category above 31")
    elseif total:uint() ~= size then
        complain(item, pinfo, "the total length does not match its size")
    elseif element:uint() ~= size - ELEMENT then
        complain(item, pinfo, "the element length does not match its size")
    end
    return size
end

local ports = DissectorTable.get("udp.port")
local registered = debug_message.prefs.port
ports:add(registered, debug_message)

function debug_message.prefs_changed()
    if registered ~= debug_message.prefs.port then
        ports:remove(registered, debug_message)
        registered = debug_message.prefs.port
        ports:add(registered, debug_message)
    end
end

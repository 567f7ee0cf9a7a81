#include "common/charsets.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace tarvik {

namespace {

constexpr char16_t kNoCharacter = u'_';

constexpr SingleByteEncoding kEncodings[] = {
    // clang-format off
    {"ISO-8859-1", "latin1", u""},
    {"ISO-8859-2", "latin2",
     u"\u00a0Ą˘Ł¤ĽŚ§¨ŠŞŤŹ\u00adŽŻ°ą˛ł´ľśˇ¸šşťź˝žżŔÁÂĂÄĹĆÇČÉĘËĚÍÎĎĐŃŇÓÔŐÖ×ŘŮÚŰÜÝŢß"
     u"ŕáâăäĺćçčéęëěíîďđńňóôőö÷řůúűüýţ˙"},
    {"ISO-8859-3", "latin3",
     u"\u00a0Ħ˘£¤_Ĥ§¨İŞĞĴ\u00ad_Ż°ħ²³´µĥ·¸ışğĵ½_żÀÁÂ_ÄĊĈÇÈÉÊËÌÍÎÏ_ÑÒÓÔĠÖ×ĜÙÚÛÜŬŜß"
     u"àáâ_äċĉçèéêëìíîï_ñòóôġö÷ĝùúûüŭŝ˙"},
    {"ISO-8859-4", "latin4",
     u"\u00a0ĄĸŖ¤ĨĻ§¨ŠĒĢŦ\u00adŽ¯°ą˛ŗ´ĩļˇ¸šēģŧŊžŋĀÁÂÃÄÅÆĮČÉĘËĖÍÎĪĐŅŌĶÔÕÖ×ØŲÚÛÜŨŪß"
     u"āáâãäåæįčéęëėíîīđņōķôõö÷øųúûüũū˙"},
    {"ISO-8859-5", "cyrillic",
     u"\u00a0ЁЂЃЄЅІЇЈЉЊЋЌ\u00adЎЏАБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмноп"
     u"рстуфхцчшщъыьэюя№ёђѓєѕіїјљњћќ§ўџ"},
    {"ISO-8859-6", "arabic",
     u"\u00a0___¤_______،\u00ad_____________\u061b___\u061f"
     u"_\u0621\u0622\u0623\u0624\u0625\u0626\u0627\u0628\u0629\u062a\u062b\u062c\u062d\u062e"
     u"\u062f\u0630\u0631\u0632\u0633\u0634\u0635\u0636\u0637\u0638\u0639\u063a_____"
     u"\u0640\u0641\u0642\u0643\u0644\u0645\u0646\u0647\u0648\u0649\u064a\u064b\u064c\u064d"
     u"\u064e\u064f\u0650\u0651\u0652_____________"},
    {"ISO-8859-7", "greek",
     u"\u00a0‘’£€₯¦§¨©ͺ«¬\u00ad_―°±²³΄΅Ά·ΈΉΊ»Ό½ΎΏΐΑΒΓΔΕΖΗΘΙΚΛΜΝΞΟΠΡ_ΣΤΥΦΧΨΩΪΫάέήί"
     u"ΰαβγδεζηθικλμνξοπρςστυφχψωϊϋόύώ_"},
    {"ISO-8859-8", "hebrew",
     u"\u00a0_¢£¤¥¦§¨©×«¬\u00ad®¯°±²³´µ¶·¸¹÷»¼½¾________________________________‗"
     u"\u05d0\u05d1\u05d2\u05d3\u05d4\u05d5\u05d6\u05d7\u05d8\u05d9\u05da\u05db\u05dc\u05dd"
     u"\u05de\u05df\u05e0\u05e1\u05e2\u05e3\u05e4\u05e5\u05e6\u05e7\u05e8\u05e9\u05ea__\u200e"
     u"\u200f_"},
    {"ISO-8859-9", "latin5",
     u"\u00a0¡¢£¤¥¦§¨©ª«¬\u00ad®¯°±²³´µ¶·¸¹º»¼½¾¿ÀÁÂÃÄÅÆÇÈÉÊËÌÍÎÏĞÑÒÓÔÕÖ×ØÙÚÛÜİŞß"
     u"àáâãäåæçèéêëìíîïğñòóôõö÷øùúûüışÿ"},
    {"ISO-8859-10", "latin6",
     u"\u00a0ĄĒĢĪĨĶ§ĻĐŠŦŽ\u00adŪŊ°ąēģīĩķ·ļđšŧž―ūŋĀÁÂÃÄÅÆĮČÉĘËĖÍÎÏÐŅŌÓÔÕÖŨØŲÚÛÜÝÞß"
     u"āáâãäåæįčéęëėíîïðņōóôõöũøųúûüýþĸ"},
    {"ISO-8859-11", "TIS-620",
     u"\u00a0กขฃคฅฆงจฉชซฌญฎฏฐฑฒณดตถทธนบปผฝพฟ"
     u"ภมยรฤลฦวศษสหฬอฮฯะ\u0e31าำ\u0e34\u0e35\u0e36\u0e37\u0e38\u0e39\u0e3a____฿"
     u"เแโใไๅๆ\u0e47\u0e48\u0e49\u0e4a\u0e4b\u0e4c\u0e4d\u0e4e๏๐๑๒๓๔๕๖๗๘๙๚๛____"},
    {"ISO-8859-13", "latin7",
     u"\u00a0”¢£¤„¦§Ø©Ŗ«¬\u00ad®Æ°±²³“µ¶·ø¹ŗ»¼½¾æĄĮĀĆÄÅĘĒČÉŹĖĢĶĪĻŠŃŅÓŌÕÖ×ŲŁŚŪÜŻŽß"
     u"ąįāćäåęēčéźėģķīļšńņóōõö÷ųłśūüżž’"},
    {"ISO-8859-14", "latin8",
     u"\u00a0Ḃḃ£ĊċḊ§Ẁ©ẂḋỲ\u00ad®ŸḞḟĠġṀṁ¶ṖẁṗẃṠỳẄẅṡÀÁÂÃÄÅÆÇÈÉÊËÌÍÎÏŴÑÒÓÔÕÖṪØÙÚÛÜÝŶß"
     u"àáâãäåæçèéêëìíîïŵñòóôõöṫøùúûüýŷÿ"},
    {"ISO-8859-15", "latin9",
     u"\u00a0¡¢£€¥Š§š©ª«¬\u00ad®¯°±²³Žµ¶·ž¹º»ŒœŸ¿ÀÁÂÃÄÅÆÇÈÉÊËÌÍÎÏÐÑÒÓÔÕÖ×ØÙÚÛÜÝÞß"
     u"àáâãäåæçèéêëìíîïðñòóôõö÷øùúûüýþÿ"},
    {"ISO-8859-16", "latin10",
     u"\u00a0ĄąŁ€„Š§š©Ș«Ź\u00adźŻ°±ČłŽ”¶·žčș»ŒœŸżÀÁÂĂÄĆÆÇÈÉÊËÌÍÎÏĐŃÒÓÔŐÖŚŰÙÚÛÜĘȚß"
     u"àáâăäćæçèéêëìíîïđńòóôőöśűùúûüęțÿ"},
    {"windows-1250", "cp1250",
     u"€_‚_„…†‡_‰Š‹ŚŤŽŹ_‘’“”•–—_™š›śťžź\u00a0ˇ˘Ł¤Ą¦§¨©Ş«¬\u00ad®Ż°±˛ł´µ¶·¸ąş»Ľ˝ľż"
     u"ŔÁÂĂÄĹĆÇČÉĘËĚÍÎĎĐŃŇÓÔŐÖ×ŘŮÚŰÜÝŢßŕáâăäĺćçčéęëěíîďđńňóôőö÷řůúűüýţ˙"},
    {"windows-1251", "cp1251",
     u"ЂЃ‚ѓ„…†‡€‰Љ‹ЊЌЋЏђ‘’“”•–—_™љ›њќћџ\u00a0ЎўЈ¤Ґ¦§Ё©Є«¬\u00ad®Ї°±Ііґµ¶·ё№є»јЅѕї"
     u"АБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмнопрстуфхцчшщъыьэюя"},
    {"windows-1252", "cp1252",
     u"€_‚ƒ„…†‡ˆ‰Š‹Œ_Ž__‘’“”•–—˜™š›œ_žŸ\u00a0¡¢£¤¥¦§¨©ª«¬\u00ad®¯°±²³´µ¶·¸¹º»¼½¾¿"
     u"ÀÁÂÃÄÅÆÇÈÉÊËÌÍÎÏÐÑÒÓÔÕÖ×ØÙÚÛÜÝÞßàáâãäåæçèéêëìíîïðñòóôõö÷øùúûüýþÿ"},
    {"windows-1253", "cp1253",
     u"€_‚ƒ„…†‡_‰_‹_____‘’“”•–—_™_›____\u00a0΅Ά£¤¥¦§¨©_«¬\u00ad®―°±²³΄µ¶·ΈΉΊ»Ό½ΎΏ"
     u"ΐΑΒΓΔΕΖΗΘΙΚΛΜΝΞΟΠΡ_ΣΤΥΦΧΨΩΪΫάέήίΰαβγδεζηθικλμνξοπρςστυφχψωϊϋόύώ_"},
    {"windows-1254", "cp1254",
     u"€_‚ƒ„…†‡ˆ‰Š‹Œ____‘’“”•–—˜™š›œ__Ÿ\u00a0¡¢£¤¥¦§¨©ª«¬\u00ad®¯°±²³´µ¶·¸¹º»¼½¾¿"
     u"ÀÁÂÃÄÅÆÇÈÉÊËÌÍÎÏĞÑÒÓÔÕÖ×ØÙÚÛÜİŞßàáâãäåæçèéêëìíîïğñòóôõö÷øùúûüışÿ"},
    {"windows-1255", "cp1255",
     u"€_‚ƒ„…†‡ˆ‰_‹_____‘’“”•–—˜™_›____\u00a0¡¢£₪¥¦§¨©×«¬\u00ad®¯°±²³´µ¶·¸¹÷»¼½¾¿"
     u"\u05b0\u05b1\u05b2\u05b3\u05b4\u05b5\u05b6\u05b7\u05b8\u05b9_\u05bb\u05bc\u05bd\u05be"
     u"\u05bf\u05c0\u05c1\u05c2\u05c3\u05f0\u05f1\u05f2\u05f3\u05f4_______"
     u"\u05d0\u05d1\u05d2\u05d3\u05d4\u05d5\u05d6\u05d7\u05d8\u05d9\u05da\u05db\u05dc\u05dd"
     u"\u05de\u05df\u05e0\u05e1\u05e2\u05e3\u05e4\u05e5\u05e6\u05e7\u05e8\u05e9\u05ea__\u200e"
     u"\u200f_"},
    {"windows-1256", "cp1256",
     u"€\u067e‚ƒ„…†‡ˆ‰\u0679‹Œ\u0686\u0698\u0688\u06af‘’“”•–—\u06a9™\u0691›œ\u200c\u200d\u06ba"
     u"\u00a0،¢£¤¥¦§¨©\u06be«¬\u00ad®¯°±²³´µ¶·¸¹\u061b»¼½¾\u061f"
     u"\u06c1\u0621\u0622\u0623\u0624\u0625\u0626\u0627\u0628\u0629\u062a\u062b\u062c\u062d"
     u"\u062e\u062f\u0630\u0631\u0632\u0633\u0634\u0635\u0636×\u0637\u0638\u0639\u063a\u0640"
     u"\u0641\u0642\u0643"
     u"à\u0644â\u0645\u0646\u0647\u0648çèéêë\u0649\u064aîï\u064b\u064c\u064d\u064eô\u064f\u0650"
     u"÷\u0651ù\u0652ûü\u200e\u200f\u06d2"},
    {"windows-1257", "cp1257",
     u"€_‚_„…†‡_‰_‹_¨ˇ¸_‘’“”•–—_™_›_¯˛_\u00a0_¢£¤_¦§Ø©Ŗ«¬\u00ad®Æ°±²³´µ¶·ø¹ŗ»¼½¾æ"
     u"ĄĮĀĆÄÅĘĒČÉŹĖĢĶĪĻŠŃŅÓŌÕÖ×ŲŁŚŪÜŻŽßąįāćäåęēčéźėģķīļšńņóōõö÷ųłśūüżž˙"},
    {"windows-1258", "cp1258",
     u"€_‚ƒ„…†‡ˆ‰_‹Œ____‘’“”•–—˜™_›œ__Ÿ\u00a0¡¢£¤¥¦§¨©ª«¬\u00ad®¯°±²³´µ¶·¸¹º»¼½¾¿"
     u"ÀÁÂĂÄÅÆÇÈÉÊË\u0300ÍÎÏĐÑ\u0309ÓÔƠÖ×ØÙÚÛÜƯ\u0303ß"
     u"àáâăäåæçèéêë\u0301íîïđñ\u0323óôơö÷øùúûüư₫ÿ"},
    {"KOI8-R", "csKOI8R",
     u"─│┌┐└┘├┤┬┴┼▀▄█▌▐░▒▓⌠■∙√≈≤≥\u00a0⌡°²·÷═║╒ё╓╔╕╖╗╘╙╚╛╜╝╞╟╠╡Ё╢╣╤╥╦╧╨╩╪╫╬©"
     u"юабцдефгхийклмнопярстужвьызшэщчъЮАБЦДЕФГХИЙКЛМНОПЯРСТУЖВЬЫЗШЭЩЧЪ"},
    {"KOI8-U", "csKOI8U",
     u"─│┌┐└┘├┤┬┴┼▀▄█▌▐░▒▓⌠■∙√≈≤≥\u00a0⌡°²·÷═║╒ёє╔ії╗╘╙╚╛ґ╝╞╟╠╡ЁЄ╣ІЇ╦╧╨╩╪Ґ╬©"
     u"юабцдефгхийклмнопярстужвьызшэщчъЮАБЦДЕФГХИЙКЛМНОПЯРСТУЖВЬЫЗШЭЩЧЪ"},
    // clang-format on
};

/// @return whether two names differ in nothing but case and what is no letter or digit.
bool is_same_name(std::string_view a, std::string_view b)
{
    const auto essence = [](std::string_view name) {
        std::string kept;
        for (const unsigned char c : name)
            if (std::isalnum(c) != 0)
                kept += static_cast<char>(std::tolower(c));
        return kept;
    };
    return essence(a) == essence(b);
}

char16_t character_of(const SingleByteEncoding& encoding, unsigned char byte)
{
    const std::size_t first = 256 - encoding.last.size();
    return byte < first ? byte : encoding.last[byte - first];
}

void append_character(std::string& utf8, char16_t character)
{
    const auto append = [&utf8](int byte) { utf8 += static_cast<char>(byte); };
    if (character < 0x80) {
        append(character);
        return;
    }
    if (character < 0x800) {
        append(0xc0 | character >> 6);
    } else {
        append(0xe0 | character >> 12);
        append(0x80 | (character >> 6 & 0x3f));
    }
    append(0x80 | (character & 0x3f));
}

}  // namespace

const SingleByteEncoding* find_single_byte_encoding(std::string_view name)
{
    const auto* const found = std::find_if(
        std::begin(kEncodings), std::end(kEncodings), [name](const SingleByteEncoding& encoding) {
            return is_same_name(name, encoding.name) || is_same_name(name, encoding.alias);
        });
    return found == std::end(kEncodings) ? nullptr : found;
}

bool append_as_utf8(std::string& utf8, const SingleByteEncoding& encoding, std::string_view text)
{
    for (const unsigned char byte : text) {
        const char16_t character = character_of(encoding, byte);
        if (byte >= 0x80 && character == kNoCharacter)
            return false;
        append_character(utf8, character);
    }
    return true;
}

}  // namespace tarvik

// PDF/A resources: the XMP template and the identifier maker.
#include "pdf/PdfAResources.h"

#include <chrono>
#include <random>

namespace kestrelyn {

extern const unsigned char kSrgbProfileDeflated[];
extern const unsigned int kSrgbProfileDeflatedSize;

namespace {

// The packet, written with LF here and served with CR LF.
constexpr char kXmpTemplate[] =
    "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
    R"(<x:xmpmeta xmlns:x="adobe:ns:meta/" x:xmptk="Kestrelyn XMP 4.2.1">
<rdf:RDF xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#">
<rdf:Description rdf:about="" xmlns:dc="http://purl.org/dc/elements/1.1/">
<dc:format>application/pdf</dc:format>
<dc:creator>
<rdf:Seq>
<rdf:li>XXX_AUTHOR_XXX</rdf:li>
</rdf:Seq>
</dc:creator>
<dc:title>
<rdf:Alt>
<rdf:li xml:lang="x-default">XXX_TITLE_XXX</rdf:li>
</rdf:Alt>
</dc:title>
<dc:description>
<rdf:Alt>
<rdf:li xml:lang="x-default">XXX_SUBJECT_XXX</rdf:li>
</rdf:Alt>
</dc:description>
</rdf:Description>
<rdf:Description rdf:about="" xmlns:xmp="http://ns.adobe.com/xap/1.0/">
<xmp:CreateDate>XXX_CREATIONDATE_XXX</xmp:CreateDate>
<xmp:CreatorTool>XXX_CREATOR_XXX</xmp:CreatorTool>
<xmp:ModifyDate>XXX_MODIFYDATE_XXX</xmp:ModifyDate>
<xmp:MetadataDate>XXX_METADATADATE_XXX</xmp:MetadataDate>
</rdf:Description>
<rdf:Description rdf:about="" xmlns:pdf="http://ns.adobe.com/pdf/1.3/">
<pdf:Producer>XXX_PRODUCER_XXX</pdf:Producer>
<pdf:Keywords>XXX_KEYWORDS_XXX</pdf:Keywords>
</rdf:Description>
<rdf:Description rdf:about="" xmlns:xmpMM="http://ns.adobe.com/xap/1.0/mm/">
<xmpMM:DocumentID>XXX_DOCUMENTUUID_XXX</xmpMM:DocumentID>
<xmpMM:InstanceID>XXX_SESSIONUUID_XXX</xmpMM:InstanceID>
</rdf:Description>
<rdf:Description rdf:about="" xmlns:pdfaid="http://www.aiim.org/pdfa/ns/id/">
<pdfaid:part>1</pdfaid:part>
<pdfaid:conformance>B</pdfaid:conformance>
</rdf:Description>
<rdf:Description rdf:about="" xmlns:pdfaExtension="http://www.aiim.org/pdfa/ns/extension/" xmlns:pdfaSchema="http://www.aiim.org/pdfa/ns/schema#" xmlns:pdfaProperty="http://www.aiim.org/pdfa/ns/property#">
<pdfaExtension:schemas>
<rdf:Bag>
<rdf:li rdf:parseType="Resource">
<pdfaSchema:namespaceURI>http://ns.adobe.com/pdf/1.3/</pdfaSchema:namespaceURI>
<pdfaSchema:prefix>pdf</pdfaSchema:prefix>
<pdfaSchema:schema>Adobe PDF Schema</pdfaSchema:schema>
<pdfaSchema:property>
<rdf:Seq>
<rdf:li rdf:parseType="Resource">
<pdfaProperty:category>internal</pdfaProperty:category>
<pdfaProperty:description>The name of the tool that created the PDF document</pdfaProperty:description>
<pdfaProperty:name>Producer</pdfaProperty:name>
<pdfaProperty:valueType>AgentName</pdfaProperty:valueType>
</rdf:li>
<rdf:li rdf:parseType="Resource">
<pdfaProperty:category>external</pdfaProperty:category>
<pdfaProperty:description>Keywords of the document</pdfaProperty:description>
<pdfaProperty:name>Keywords</pdfaProperty:name>
<pdfaProperty:valueType>Text</pdfaProperty:valueType>
</rdf:li>
</rdf:Seq>
</pdfaSchema:property>
</rdf:li>
<rdf:li rdf:parseType="Resource">
<pdfaSchema:namespaceURI>http://www.aiim.org/pdfa/ns/id/</pdfaSchema:namespaceURI>
<pdfaSchema:prefix>pdfaid</pdfaSchema:prefix>
<pdfaSchema:schema>PDF/A ID Schema</pdfaSchema:schema>
<pdfaSchema:property>
<rdf:Seq>
<rdf:li rdf:parseType="Resource">
<pdfaProperty:category>internal</pdfaProperty:category>
<pdfaProperty:description>Part of PDF/A standard</pdfaProperty:description>
<pdfaProperty:name>part</pdfaProperty:name>
<pdfaProperty:valueType>Integer</pdfaProperty:valueType>
</rdf:li>
<rdf:li rdf:parseType="Resource">
<pdfaProperty:category>internal</pdfaProperty:category>
<pdfaProperty:description>Amendment of PDF/A standard</pdfaProperty:description>
<pdfaProperty:name>amd</pdfaProperty:name>
<pdfaProperty:valueType>Text</pdfaProperty:valueType>
</rdf:li>
<rdf:li rdf:parseType="Resource">
<pdfaProperty:category>internal</pdfaProperty:category>
<pdfaProperty:description>Conformance level of PDF/A standard</pdfaProperty:description>
<pdfaProperty:name>conformance</pdfaProperty:name>
<pdfaProperty:valueType>Text</pdfaProperty:valueType>
</rdf:li>
</rdf:Seq>
</pdfaSchema:property>
</rdf:li>
</rdf:Bag>
</pdfaExtension:schemas>
</rdf:Description>
</rdf:RDF>
</x:xmpmeta>
<?xpacket end="w"?>)";

std::string WithCrLf(const char* sText) {
    std::string s;
    for (const char* p = sText; *p; ++p) {
        if (*p == '\n') s += '\r';
        s += *p;
    }
    return s;
}

} // namespace

const std::string& XmpTemplate() {
    static const std::string sTemplate = WithCrLf(kXmpTemplate);
    return sTemplate;
}

std::string DeflatedSrgbProfile() {
    return std::string(reinterpret_cast<const char*>(kSrgbProfileDeflated),
                       kSrgbProfileDeflatedSize);
}

std::string MakeGuid() {
    std::mt19937 oRandom(static_cast<std::uint32_t>(
        std::chrono::high_resolution_clock::now().time_since_epoch().count()));
    // Successive identifiers of one clock tick still differ.
    static thread_local std::uint32_t nCalls = 0;
    oRandom.discard(++nCalls * 64);
    std::uniform_real_distribution<double> oUnit(0.0, 1.0);
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string s;
    for (int nGroup : {8, 4, 4, 4, 12}) {
        if (!s.empty()) s += '-';
        for (int i = 0; i < nGroup; ++i)
            s += kHex[static_cast<int>(oUnit(oRandom) * 16) & 15];
    }
    return s;
}

} // namespace kestrelyn

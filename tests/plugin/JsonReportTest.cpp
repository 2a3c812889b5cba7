#include "plugin/JsonReport.h"

#include <QJsonArray>
#include <QJsonObject>

#include <gtest/gtest.h>

TEST(JsonReport, EmptyMapIsAnEmptyArray)
{
    EXPECT_EQ(reportText(ReportMap()).toStdString(), "[\n]\n");
}

TEST(JsonReport, EmptySectionHoldsOneEmptyObject)
{
    ReportMap map;
    map.insert("S", ReportSection());
    EXPECT_EQ(reportText(map).toStdString(),
              "[\n"
              "    {\n"
              "        \"S\": [\n"
              "            {\n"
              "            }\n"
              "        ]\n"
              "    }\n"
              "]\n");
}

TEST(JsonReport, SectionsComeOutInNameOrder)
{
    ReportMap map;
    map.insert("b", {{"k", 1}});
    map.insert("B", {{"k", 2}});
    map.insert("a", {{"k", 3}});
    const QJsonArray sections = mapToJsonDocument(map).array();
    ASSERT_EQ(sections.size(), 3);
    EXPECT_EQ(sections[0].toObject().keys(), QStringList{"B"});
    EXPECT_EQ(sections[1].toObject().keys(), QStringList{"a"});
    EXPECT_EQ(sections[2].toObject().keys(), QStringList{"b"});
}

TEST(JsonReport, VariantsBecomeJsonValuesByType)
{
    ReportMap map;
    map.insert("S", {{"text", QString("x")}, {"flag", true}, {"number", 42}, {"none", QVariant()},
                     {"unsigned", 4000000000u}});
    const QJsonObject values = mapToJsonDocument(map).array()[0].toObject()["S"].toArray()[0].toObject();
    EXPECT_TRUE(values["text"].isString());
    EXPECT_TRUE(values["flag"].isBool());
    EXPECT_EQ(values["number"].toInt(), 42);
    EXPECT_TRUE(values["none"].isNull());
    EXPECT_EQ(values["unsigned"].toDouble(), 4000000000.0);
}

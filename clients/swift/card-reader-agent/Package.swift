// swift-tools-version:5.9

import PackageDescription

let strict: [SwiftSetting] = [.enableExperimentalFeature("StrictConcurrency")]

let package = Package(
  name: "card-reader-agent",
  platforms: [.macOS(.v10_15)],
  products: [
    .library(name: "CardReaderAgent", targets: ["CardReaderAgent"]),
    .library(name: "CardReaderAgentTesting", targets: ["CardReaderAgentTesting"]),
    .executable(name: "door-list", targets: ["door-list"]),
  ],
  targets: [
    .target(name: "CardReaderAgent", swiftSettings: strict),
    .target(
      name: "CardReaderAgentTesting", dependencies: ["CardReaderAgent"], swiftSettings: strict),
    .executableTarget(name: "door-list", dependencies: ["CardReaderAgent"], swiftSettings: strict),
    .testTarget(
      name: "CardReaderAgentTests", dependencies: ["CardReaderAgent", "CardReaderAgentTesting"],
      swiftSettings: strict),
  ]
)

import Foundation
